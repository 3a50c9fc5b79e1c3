#!/usr/bin/env bash
# Times the picture operators, one whole process per request as a web server runs them: a
# small page that draws nothing (gd must not cost it anything), the same page with two imgsize
# calls, a button drawn by gif_template (gd loaded, template and font read, a polygon and a
# line of text drawn, the GIF written), and the same button over a 1000 by 1000 template. Not
# a test: it prints medians of interleaved runs.
#
#   bash bench/picture_bench.sh      ROUNDS=... (default 100); TESSEL=path to skip the build
set -euo pipefail
rounds=${ROUNDS:-100}

source "$(dirname "$0")/common.sh" tessel-picturebench
trap 'rm -rf "$work"' EXIT
cd "$work"
cc -O2 -o runner "$root/bench/runner.c"

# PIL (Debian's python3-pil) is installed for the system's own python3.
pil_python=python3
if [[ -x /usr/bin/python3 ]]; then pil_python=/usr/bin/python3; fi

# ---- the site -------------------------------------------------------------------------------
cp -R "$root/examples/site/images" "$root/examples/site/_macro.cfg" .
"$pil_python" - <<'PY'
from PIL import Image
big = Image.new("P", (1000, 1000), 2)
big.putpalette([255, 255, 255, 20, 40, 80, 0x30, 0x60, 0xa0] + [0] * 759)
big.save("images/big.gif")
PY
page='<html><body><h1>^default[^form[title];Pictures]</h1><p>^left[A small page;7]</p></body></html>'
printf '%s\n' "$page" >plain.html
printf '%s\n' "${page/<\/body>/^imgsize[images/button.gif]^item[0] ^imgsize[images/photo.jpg]^item[1]</body>}" \
    >sizes.html
button=$'replace_color\t3060a0\tc04040\t0,0,999,0,999,999,0,999\n0\t10\t6\tSave the changes'
printf '^gif_template[images/button.gif;%s]\n' "$button" >button.html
printf '^gif_template[images/big.gif;%s]\n' "$button" >big.html

export DOCUMENT_ROOT=$work SCRIPT_NAME=/cgi-bin/tessel REQUEST_METHOD=GET
export REMOTE_ADDR=127.0.0.1 SERVER_NAME=localhost QUERY_STRING=

# One checked run of each picture page: a GIF of the template's size, not the fallback.
for page in button big; do
    PATH_TRANSLATED=$work/$page.html REQUEST_URI=/$page.html "$TESSEL" | tail -c +26 >"$page.gif"
    "$pil_python" -c 'import sys; from PIL import Image; im = Image.open(sys.argv[1]); assert im.width > 1, im.size' \
        "$page.gif"
done

echo "timing $rounds interleaved rounds of whole processes..."
./runner "$rounds" "plain=$TESSEL@$work/plain.html" "sizes=$TESSEL@$work/sizes.html" \
    "button=$TESSEL@$work/button.html" "big=$TESSEL@$work/big.html" >times
awk '{ t[$1] = $2; b[$1] = $3 }
END {
    printf "%-44s %10s %10s\n", "request", "median ms", "bytes"
    printf "%-44s %10.2f %10d\n", "small page, no pictures", t["plain"], b["plain"]
    printf "%-44s %10.2f %10d\n", "the same with two imgsize calls", t["sizes"], b["sizes"]
    printf "%-44s %10.2f %10d\n", "a 120x24 button by gif_template", t["button"], b["button"]
    printf "%-44s %10.2f %10d\n", "the same drawn on a 1000x1000 template", t["big"], b["big"]
    printf "loading gd and drawing a button adds %.2f ms to a request\n", t["button"] - t["plain"]
}' times
