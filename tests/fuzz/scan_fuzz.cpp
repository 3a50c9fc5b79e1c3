// Fuzz target: the call scanner, walked over the input as the expander walks a text. What it
// learns from failed lists must agree with reading each list afresh, and the whole walk must
// read the text a bounded number of times whatever it holds, so a quadratic scan aborts on the
// first input that shows it rather than by a timeout. Inputs may be long (scripts/fuzz.sh).
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "interp/scanner.h"

namespace {

// Inputs up to this size are also read with a fresh scanner per caret, which is quadratic.
constexpr size_t COMPARED_SIZE = 2048;

bool same(const caret_scan& a, const caret_scan& b)
{
    return a.kind == b.kind && a.open == b.open && a.close == b.close;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const char* text = (const char*)data;
    size_t params = 0;
    auto count = [&](size_t, size_t) { params++; };
    call_scanner scanner(text, size);
    size_t before = call_scanner::bytes_examined, fresh_examined = 0;
    for (size_t i = 0; i < size;) {
        if (text[i] != '^') {
            i++;
            continue;
        }
        caret_scan found = scanner.read(i, count);
        if (size <= COMPARED_SIZE) {
            call_scanner fresh(text, size);
            size_t fresh_before = call_scanner::bytes_examined;
            bool agree = same(found, fresh.read(i, count));
            fresh_examined += call_scanner::bytes_examined - fresh_before;
            if (!agree) {
                fprintf(stderr, "caret %zu: the learnt outcome differs from a fresh read\n", i);
                abort();
            }
        }
        i = found.kind == caret_kind::CALL     ? found.close + 1
            : found.kind == caret_kind::ESCAPE ? i + 2
                                               : i + 1;
    }
    // Calls read once each, at most one failed list and one pass per world.
    size_t examined = call_scanner::bytes_examined - before - fresh_examined;
    if (examined > 5 * size) {
        fprintf(stderr, "%zu bytes examined for a text of %zu\n", examined, size);
        abort();
    }
    return 0;
}
