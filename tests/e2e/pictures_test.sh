#!/usr/bin/env bash
# Pictures through Apache: a page that draws a GIF answers with the picture and its own
# content type, a missing template with the 43-byte transparent picture, and the example
# site's picture page sizes its img tags with imgsize.
# Usage: pictures_test.sh PROGRAM
set -uo pipefail
source "$(dirname "$0")/lib.sh" "$1"

cp -R "$E2E_ROOT/examples/site/." "$SITE/"
printf '^gif_template[/images/none.gif;]\n' >"$SITE/missing.html"
chmod -R a+rX "$SITE"
e2e_start

e2e_get "/button.html?text=Hello&on=yes"
check_equal "button: status" 200 "$STATUS"
check_header content-type image/gif
check_equal "button: a GIF of 120 by 24 pixels" "GIF89a 120 24" \
    "$(head -c 6 "$BODY") $(od -An -tu2 -j6 -N4 "$BODY" | xargs)"
check_length "button"

e2e_get /missing.html
check_header content-type image/gif
printf 'GIF89a\1\0\1\0\200\377\0\300\300\300\0\0\0!\371\4\1\0\0\0\0,\0\0\0\0\1\0\1\0\0\2\2D\1\0;' \
    >"$WORK/fallback.gif"
check_same_file "missing template: the transparent pixel" "$WORK/fallback.gif" "$BODY"

e2e_get /images.html
check_header content-type text/html
check_contains "button sized by imgsize" '<img src="button.html?text=Tables" width=120 height=24'
check_contains "photo sized by imgsize" '<img src="/images/photo.jpg" width=160 height=100'

e2e_finish
