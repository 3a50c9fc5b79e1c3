#!/usr/bin/env bash
# Times what shared pieces, counters and the fragment cache cost a request, each request a
# whole process as a web server runs it. Not a test: it prints medians of interleaved runs.
#
#   1. A page that includes a header and a footer and bumps a counter, beside the same page
#      with the header and footer written into it and no counter.
#   2. A fragment that takes 1,000 operator calls to build: served from the cache (every run
#      after the first is a hit), beside the page that builds it each time; 20 times in a page,
#      less the page without it, so that one fragment's cost stands out of the process start.
#
#   bash bench/files_bench.sh     ROUNDS=... (default 200); TESSEL=path to skip the build
# Target: a cache hit costs less than building the fragment, in elapsed and in CPU time.
set -euo pipefail
rounds=${ROUNDS:-200}

source "$(dirname "$0")/common.sh" tessel-filesbench
trap 'rm -rf "$work"' EXIT
cd "$work"
cc -O2 -o runner "$root/bench/runner.c"

# ---- the pages --------------------------------------------------------------------------
python3 - <<'PY'
header = """<html>
<head><title>Order status</title><link rel="stylesheet" href="/site.css"></head>
<body>
<div class="top"><a href="/">Home</a> | <a href="/shop/">Shop</a> | <a href="/help/">Help</a></div>
"""
footer = """<div class="bottom">Questions? Write to us. ^uri[]</div>
</body>
</html>
"""
content = """<h1>Order ^left[A-2026-000117-X;13] for ^default[^form[name];guest]</h1>
<p>Your order has ^length[bolts, nuts, gears] characters of items.</p>
"""
open("_header.html", "w").write(header)
open("_footer.html", "w").write(footer)
open("shared.html", "w").write(
    "^include[_header.html]" + content + "<p>Visitor ^counter[visits]</p>\n^include[_footer.html]")
open("inline.html", "w").write(header + content + "<p>Visitor 1</p>\n" + footer)

# 1,000 calls: a list of 500 items, each a cut and an upper-casing. A page holds it 20 times,
# so that its cost stands out of the process's start; "empty" is the page without it.
fragment = "<ul>\n" + "".join(
    "<li>^toupper[^left[item %04d of the fragment;9]]</li>\n" % i for i in range(500)) + "</ul>\n"
page = "<html><body>\n%s</body></html>\n"
open("empty.html", "w").write(page % "")
open("built.html", "w").write(page % (fragment * 20))
open("cached.html", "w").write(page % (("^cache[fragment;" + fragment + "]") * 20))
PY

export DOCUMENT_ROOT=$work SCRIPT_NAME=/cgi-bin/tessel REQUEST_METHOD=GET
export REMOTE_ADDR=127.0.0.1 SERVER_NAME=localhost QUERY_STRING=

# One checked run of each page; the cached page's first run fills the cache.
for page in shared inline empty built cached; do
    PATH_TRANSLATED=$work/$page.html REQUEST_URI=/$page.html "$TESSEL" >"$page.out"
    if grep -q '\[invalid operator\|\[counter' "$page.out"; then
        echo "files_bench.sh: $page.html did not render:" >&2
        cat "$page.out" >&2
        exit 1
    fi
done
cmp -s <(tail -n +3 built.out) <(tail -n +3 cached.out) ||
    { echo "files_bench.sh: the cached page differs from the built one" >&2; exit 1; }

# CPU time (user + system) of the processes themselves: steadier than elapsed time on a busy
# machine, and what includes, counters and the cache add is CPU and system calls.
python3 - "$TESSEL" "$work" "$rounds" >cpu <<'CPU'
import os, resource, subprocess, sys
program, work, rounds = sys.argv[1], sys.argv[2], int(sys.argv[3])
def cpu():
    r = resource.getrusage(resource.RUSAGE_CHILDREN)
    return r.ru_utime + r.ru_stime
for page in ("shared", "inline", "empty", "built", "cached"):
    env = dict(os.environ, PATH_TRANSLATED="%s/%s.html" % (work, page),
               REQUEST_URI="/%s.html" % page)
    before = cpu()
    for _ in range(rounds):
        subprocess.run([program], env=env, stdout=subprocess.DEVNULL, check=True)
    print(page, (cpu() - before) / rounds * 1000)
CPU

echo "timing $rounds interleaved rounds of whole processes..."
./runner "$rounds" "shared=$TESSEL@$work/shared.html" "inline=$TESSEL@$work/inline.html" \
    "empty=$TESSEL@$work/empty.html" "built=$TESSEL@$work/built.html" \
    "cached=$TESSEL@$work/cached.html" >times
echo "counter after the runs: $(cat visits.count)"
awk 'FNR == NR { c[$1] = $2; next } { t[$1] = $2 }
END {
    printf "\n%-46s %10s %10s\n", "page", "median ms", "CPU ms"
    printf "%-46s %10.3f %10.3f\n", "header and footer included, counter bumped", t["shared"], c["shared"]
    printf "%-46s %10.3f %10.3f\n", "the same page written out, no counter", t["inline"], c["inline"]
    printf "includes and counter add %.3f ms elapsed, %.3f ms CPU per request\n\n",
        t["shared"] - t["inline"], c["shared"] - c["inline"]
    printf "%-46s %10.3f %10.3f\n", "page without the fragment", t["empty"], c["empty"]
    printf "%-46s %10.3f %10.3f\n", "fragment of 1,000 calls built, 20 times", t["built"], c["built"]
    printf "%-46s %10.3f %10.3f\n", "the same fragment from the cache, 20 times", t["cached"], c["cached"]
    bt = (t["built"] - t["empty"]) / 20; ht = (t["cached"] - t["empty"]) / 20
    bc = (c["built"] - c["empty"]) / 20; hc = (c["cached"] - c["empty"]) / 20
    printf "one fragment: built %.3f ms (%.3f CPU), from the cache %.3f ms (%.3f CPU)\n", bt, bc, ht, hc
    printf "a cache hit costs %.2fx of building the fragment (%.2fx in CPU)   < 1.0x %s\n",
        ht / bt, hc / bc, (ht < bt && hc < bc) ? "met" : "MISSED"
}' cpu times
