#!/usr/bin/env bash
# What reaches a page as the request sent it (the URI, the query string, an uploaded file's
# client name) is escaped like a form field under the server's TESSEL_SAFE_ESCAPING: a link
# cannot end the attribute it is printed into, nor add markup.
# Usage: escaping_test.sh PROGRAM
set -uo pipefail
source "$(dirname "$0")/lib.sh" "$1"

printf "<a href='^uri[]'>^query[]</a> <b title='^upload[f;name]'>\n" >"$SITE/show.html"
printf 'x\n' >"$WORK/x.txt"
e2e_start

e2e_get "/show.html?q='><i>&amp;" -F "f=@$WORK/x.txt;filename=<i>'&x.txt"
check_equal "status" 200 "$STATUS"
check_body "uri, query and client name escaped" \
    $'<a href=\'/show.html?q=&#39;&gt;&lt;i&gt;&amp;amp;\'>q=&#39;&gt;&lt;i&gt;&amp;amp;</a> <b title=\'&lt;i&gt;&#39;&amp;x.txt\'>\n'
e2e_finish
