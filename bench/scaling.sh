#!/usr/bin/env bash
# Checks that cost grows with the work and no faster: each workload runs at four sizes spanning
# 16x, one whole process per page, and its CPU time net of a small page is divided by its
# units of work. The growth ratio is the cost per unit at the largest size over that at the
# smallest: 1.0 is linear. Not a test: it prints medians of interleaved runs and peak RSS.
#
#   bash bench/scaling.sh     ROUNDS=... (default 3); SCALE=... (default 1, sizes times it);
#                             TESSEL=path to skip the build
#
# Workloads and their units:
#   save        ^save of a table of 64k to 1M rows (rows)
#   var_append  64k to 1M appends ^var[x;.;y] (appends)
#   sort        ^sort of a table of 4k to 64k rows by ^item[0] (N log2 N)
#   var_rebuild 16k to 256k rebuilds ^var[x;^var[x]y]: each copies the whole value, as the
#               page asks, so the unit is a byte copied (N*N/2); a linear ratio means no cliff
#   match_g     ^match[alpha;g;ALPHA;text] over 1 to 16 MB, one "alpha" per 100 bytes (bytes)
#   page        a page of 2 to 32 MB of plain text (bytes)
#   unclosed    a page of 256 KB to 4 MB of calls among carets whose lists never close,
#               "^left[ab;1] ^ [" (bytes): each failed list must not be read again
# Target: every ratio within 1.25 of 1.0.
set -euo pipefail
rounds=${ROUNDS:-3}
scale=${SCALE:-1}

source "$(dirname "$0")/common.sh" tessel-scaling
trap 'rm -rf "$work"' EXIT
cd "$work"
cc -O2 -o runner "$root/bench/runner.c"

python3 - "$scale" <<'PY'
import random, sys
scale = float(sys.argv[1])
steps = (1, 2, 4, 16)
random.seed(12)
words = "lorem ipsum dolor sit amet consectetur adipiscing elit sed do eiusmod tempor".split()

def text(size):
    out, n = [], 0
    while n < size:
        chunk = " ".join(random.choice(words) for _ in range(15)) + " alpha\n"
        out.append(chunk)
        n += len(chunk)
    return "".join(out)[:size]

def rows(n):
    return "".join("%08d\t%s\t%d\n" % (random.randrange(10**8), random.choice(words), i)
                   for i in range(n))

cases = []  # label, units
def case(label, page, units):
    open(label + ".html", "w").write(page)
    cases.append((label, units))

open("small.html", "w").write("<p>^left[small page;5]</p>\n")
for k in steps:
    n = int(65536 * k * scale)
    open("_rows%d" % n, "w").write(rows(n))
    case("save_%d" % n, "^load[rows%d]^save[out%d]done\n" % (n, n), n)
    case("var_append_%d" % n, "^for[i;1;%d;^var[x;.;y]]^length[^var[x]]\n" % n, n)
    n = int(4096 * k * scale)
    open("_rows%d" % n, "w").write(rows(n))
    case("sort_%d" % n, "^load[rows%d]^sort[^item[0];A]^item[2]\n" % n, n * n.bit_length())
    n = int(16384 * k * scale)
    case("var_rebuild_%d" % n, "^for[i;1;%d;^var[x;^var[x]y]]^length[^var[x]]\n" % n, n * n // 2)
    kb = int(1024 * k * scale)
    case("match_g_%dk" % kb, "^length[^match[alpha;g;ALPHA;%s]]\n" % text(kb * 1024), kb * 1024)
    case("page_%dk" % (kb * 2), "<pre>%s</pre>\n" % text(kb * 2048), kb * 2048)
    piece = "lorem ipsum ^left[ab;1] ^ [ "
    page = piece * (kb * 256 // len(piece))
    case("unclosed_%dk" % (kb // 4), page, len(page))
open("cases", "w").write("".join("%s %d\n" % c for c in cases))
PY

export DOCUMENT_ROOT=$work SCRIPT_NAME=/cgi-bin/tessel REQUEST_METHOD=GET
export REMOTE_ADDR=127.0.0.1 SERVER_NAME=localhost QUERY_STRING=

args=("small=$TESSEL@$work/small.html")
while read -r label units; do
    args+=("$label=$TESSEL@$work/$label.html")
done <cases
echo "timing $rounds interleaved rounds of $((${#args[@]})) pages..."
./runner "$rounds" "${args[@]}" >times

python3 - <<'PY'
import collections
t = {}
for row in open("times"):
    label, ms, size, cpu, kb = row.split()
    t[label] = (float(cpu), int(kb))
base = t["small"][0]
groups = collections.OrderedDict()
for row in open("cases"):
    label, units = row.split()
    groups.setdefault(label.rsplit("_", 1)[0], []).append((label, int(units)))
print("CPU time, median; net = minus the small page (%.2f ms, peak RSS %d KB)" % (base, t["small"][1]))
print("%-20s %12s %10s %14s %10s" % ("case", "units", "CPU ms", "net ns/unit", "peak RSS"))
verdicts = []
for name, sizes in groups.items():
    per = []
    for label, units in sizes:
        cpu, kb = t[label]
        per.append(max(cpu - base, 0) * 1e6 / units)
        print("%-20s %12d %10.2f %14.3f %7.1f MB" % (label, units, cpu, per[-1], kb / 1024))
    ratio = per[-1] / per[0] if per[0] > 0 else float("nan")
    verdicts.append((name, ratio))
print()
for name, ratio in verdicts:
    print("%-12s growth ratio (16x the work) %5.2f   <= 1.25 %s"
          % (name, ratio, "met" if ratio <= 1.25 else "MISSED"))
PY
