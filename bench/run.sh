#!/usr/bin/env bash
# Times tessel as a web server runs it, one whole process per request, beside the floor of
# any CGI program: a minimal C program that prints the very same bytes, linked statically as
# tessel is. Cases: a small page,
# a 2 MB page with 2,000 operator calls, and that page doubled (4 MB, 4,000 calls) to show
# that the cost grows linearly. Not a test: it prints medians of interleaved runs.
#
#   bash bench/run.sh          ROUNDS=... (default 200); TESSEL=path to skip the build
# Prints the median time, CPU time (user and system, which a busy machine inflates less) and
# peak resident memory of each. Targets: small page within 1.1x its floor; 2 MB page within
# 2x; doubling the page doubles the time, no more.
set -euo pipefail
rounds=${ROUNDS:-200}

source "$(dirname "$0")/common.sh" tessel-bench
trap 'rm -rf "$work"' EXIT
cd "$work"
cc -O2 -o runner "$root/bench/runner.c"

# ---- the pages --------------------------------------------------------------------------
python3 - <<'PY'
small = """<html>
<head><title>^default[^form[title];Order status]</title></head>
<body>
<h1>Order ^left[A-2026-000117-X;13] for ^default[^form[name];guest]</h1>
<p>Placed at ^uri[], by ^eq[^form[name];;a new customer;a returning customer].
Your order has ^length[bolts, nuts, gears] characters of items, and ^^ marks stay literal.</p>
<table>
<tr><td>Bolts</td><td>^left[10 pieces in a box;9]</td></tr>
<tr><td>Nuts</td><td>^left[5 pieces in a bag;8]</td></tr>
<tr><td>Gears</td><td>^default[;out of stock]</td></tr>
</table>
<p>Questions? Write to us and quote ^toupper[a-2026-000117-x].</p>
</body>
</html>
"""
open("small.html", "w").write(small)

# About 1 KB of text around each call: 2,000 calls make 2 MB, 4,000 make 4 MB.
line = "Lorem ipsum dolor sit amet, consectetur adipiscing elit, sed do eiusmod tempor.\n"
filler = line * 13
def big(calls):
    parts = ["<html><body>\n"]
    for i in range(calls):
        parts.append(filler)
        parts.append("<p>Row %d: ^left[tessel renders pages;6] done</p>\n" % i)
    parts.append("</body></html>\n")
    return "".join(parts)
open("big2m.html", "w").write(big(2000))
open("big4m.html", "w").write(big(4000))
PY

export DOCUMENT_ROOT=$work SCRIPT_NAME=/cgi-bin/tessel REQUEST_METHOD=GET
export REMOTE_ADDR=127.0.0.1 SERVER_NAME=localhost QUERY_STRING=

# Renders a page once, checks it, and builds the floor program that prints the same bytes.
prepare() {
    local page=$1 name=${1%.html}
    PATH_TRANSLATED=$work/$page REQUEST_URI=/$page "$TESSEL" >"$name.out" ||
        { echo "tessel failed on $page" >&2; exit 1; }
    if grep -q '\[invalid operator' "$name.out"; then
        echo "warning: $page uses an operator this build lacks" >&2
    fi
    cat >"floor_$name.c" <<C
/* Prints the bytes of $name.out, embedded in the program: the least any CGI can do. */
#include <unistd.h>
extern const char data[], data_end[];
__asm__(".section .rodata\n.global data\ndata:\n.incbin \"$work/$name.out\"\n"
        ".global data_end\ndata_end:\n.previous\n");
int main(void)
{
    const char* p = data;
    while (p < data_end) {
        ssize_t n = write(1, p, data_end - p);
        if (n <= 0)
            return 1;
        p += n;
    }
    return 0;
}
C
    cc -O2 -static -o "floor_$name" "floor_$name.c"
}

for page in small.html big2m.html big4m.html; do prepare "$page"; done

echo "timing $rounds interleaved rounds of whole processes..."
./runner "$rounds" \
    small="$TESSEL@$work/small.html" small_floor="$work/floor_small" \
    big2m="$TESSEL@$work/big2m.html" big2m_floor="$work/floor_big2m" \
    big4m="$TESSEL@$work/big4m.html" big4m_floor="$work/floor_big4m" >times

python3 - "$work" <<'PY'
import os, sys
work = sys.argv[1]
t = {}
for row in open(os.path.join(work, "times")):
    label, ms, size, cpu, kb = row.split()
    t[label] = (float(ms), int(size), float(cpu), int(kb))

def kb(n):
    return "%.1f KB" % (n / 1024) if n < 1 << 20 else "%.1f MB" % (n / (1 << 20))

def verdict(ok):
    return "met" if ok else "MISSED"

print()
print("%-26s %10s %10s %7s %9s %9s %7s %7s %9s  %s" % (
    "page (output size)", "tessel", "C floor", "ratio", "CPU", "floor CPU", "ratio",
    "RSS KB", "floor RSS", "target"))
for label, title, target in (("small", "small page", 1.1), ("big2m", "2 MB, 2,000 calls", 2.0),
                             ("big4m", "4 MB, 4,000 calls", 2.0)):
    ms, size, cpu, rss = t[label]
    floor, floor_size, floor_cpu, floor_rss = t[label + "_floor"]
    assert size == floor_size, "tessel and its floor printed different byte counts"
    ratio = ms / floor
    print("%-26s %7.3f ms %7.3f ms %6.2fx %6.3f ms %6.3f ms %6.2fx %7d %9d  <= %.1fx %s" % (
        "%s (%s)" % (title, kb(size)), ms, floor, ratio, cpu, floor_cpu, cpu / floor_cpu, rss,
        floor_rss, target, verdict(ratio <= target)))

# Linearity: the time above the bare process start, for twice the page.
growth = (t["big4m"][0] - t["small"][0]) / (t["big2m"][0] - t["small"][0])
print()
print("doubling the page (4 MB / 2 MB, above the small page's time): %.2fx   <= 2.2x %s"
      % (growth, verdict(growth <= 2.2)))
PY
