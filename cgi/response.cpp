// The response header: header lines written whole, with no byte able to break a line.
#include "cgi/response.h"

#include <array>

#include "core/number.h"
#include "core/str.h"
#include "interp/escape.h"
#include "interp/request.h"

namespace {

// What a header writer does with a byte: copies it, writes a blank instead, or (inside a
// quoted string only) writes a backslash before it.
enum byte_kind : unsigned char { COPIED, BLANKED, QUOTE_ESCAPED };

constexpr auto BYTE_KINDS = [] {
    std::array<byte_kind, 256> kinds{};
    for (int c = 0; c < 32; c++)
        kinds[c] = BLANKED;
    kinds[127] = BLANKED;
    kinds['"'] = kinds['\\'] = QUOTE_ESCAPED;
    return kinds;
}();

// Writes text by the rules above, in runs of copied bytes. With quoted unset a double quote
// and a backslash are copied too.
void write_text(FILE* out, const char* text, bool quoted)
{
    const unsigned char* p = reinterpret_cast<const unsigned char*>(str_or_empty(text));
    while (*p) {
        const unsigned char* run = p;
        while (*p && (BYTE_KINDS[*p] == COPIED || (BYTE_KINDS[*p] == QUOTE_ESCAPED && !quoted)))
            p++;
        fwrite(run, 1, p - run, out);
        if (!*p)
            break;
        if (BYTE_KINDS[*p] == BLANKED) {
            fputc(' ', out);
        } else {
            fputc('\\', out);
            fputc(*p, out);
        }
        p++;
    }
}

// Writes "NAME: " for a line whose value the caller writes next.
void write_name(FILE* out, const char* name)
{
    write_text(out, name, false);
    fputs(": ", out);
}

} // namespace

FILE* response_stream()
{
    return req.output_stream ? req.output_stream : stdout;
}

void response_header(const char* name, const char* value)
{
    FILE* out = response_stream();
    write_name(out, name);
    write_text(out, value, false);
    fputc('\n', out);
}

void response_content(const char* type, int length)
{
    response_header("Content-type", type);
    response_header("Content-length", fmt_int(length).text);
}

void response_filename(const char* name)
{
    FILE* out = response_stream();
    fputs("Content-Disposition: filename=\"", out);
    write_text(out, name, true);
    fputs("\"\n", out);
}

void response_set_cookie(const char* name, const char* value, const char* tail)
{
    str_holder encoded_name(url_encode(name, url_style::COOKIE));
    str_holder encoded_value(url_encode(value, url_style::COOKIE));
    FILE* out = response_stream();
    fputs("Set-Cookie: ", out);
    fputs(str_or_empty(encoded_name.get()), out);
    fputc('=', out);
    fputs(str_or_empty(encoded_value.get()), out);
    fputs("; path=/", out);
    write_text(out, tail, false);
    fputc('\n', out);
}

void response_end_header()
{
    fputc('\n', response_stream());
}
