#!/usr/bin/env bash
# Whether a resident worker's memory stays flat: one worker (tessel --fastcgi --workers 1)
# serves REQUESTS requests (default 100,000) of ten kinds in turn, straight from a FastCGI
# client over its unix socket (bench/fastcgi/client.c), and its resident memory (VmRSS) is
# printed every EVERY requests (default 10,000). Every response must be the bytes of the first
# response to the same request, so state left over from one request shows too.
# Not a test: it prints figures.
#
#   bash bench/fastcgi_memory.sh      REQUESTS=... EVERY=... TESSEL=path to skip the build
#                                     KEEP=1 keeps the scratch folder
#
# The kinds: the four pages of bench/fastcgi_bench.sh (small, table, macros, calls), a form
# post, a page with page errors, a missing page (the fatal error page), a page that sets 300
# variables and loads 20 named tables, a page that reads and sets cookies, and an upload.
# Target: the growth from the first report to the last within a few hundred KB.
set -euo pipefail
export PATH=/usr/sbin:/usr/bin:/sbin:/bin:$PATH
requests=${REQUESTS:-100000}
every=${EVERY:-10000}

source "$(dirname "$0")/common.sh" tessel-memory
cleanup() {
    [[ -z ${parent:-} ]] || kill -TERM "$parent" 2>/dev/null || true
    wait 2>/dev/null || true
    if [[ -n ${KEEP:-} ]]; then echo "kept $work" >&2; else rm -rf "$work"; fi
}
parent=
trap cleanup EXIT
cd "$work"
mkdir -p site php requests state
cc -O2 -o client "$root/bench/fastcgi/client.c"
python3 "$root/bench/fastcgi/pages.py" site php

# ---- the other pages and every request ----------------------------------------------------
python3 - "$work" <<'PY'
import os, sys
work = sys.argv[1]
site = os.path.join(work, "site")

def page(name, text):
    open(os.path.join(site, name), "w").write(text)

page("form.html", """<html><body>
<p>^form[name] wrote "^form[note]" about ^default[^form[title];nothing] (^number[n], ^number[x]).</p>
<p>Fields: ^combine[tag;, ]. Query: ^query[].</p>
</body></html>
""")
page("errors.html", """<html><body>
<p>^nosuch[operator] ^include[_absent.html] ^macro[undefined;x] ^eval[1+;%d]</p>
<p>^var[a;1]^var[a] ^left[abc] ^item[7]</p>
</body></html>
""")
page("vars.html", """<html><body>
^for[i;1;300;^var[v^var[i];value number ^var[i] of the many]]^for[i;1;20;^context[t^var[i];^load[rows]]]
<p>^var[v17] ^var[v300] ^length[^var[v150]] ^context[t7;^item[1] of ^item[count]]</p>
<p>^context[t20;^item[0] and ^item[next;0]]</p>
</body></html>
""")
page("cookie.html", """<html><body>
^cookie[seen;yes]^cookie[theme;^default[^cookie[theme];light]]
<p>Session ^cookie[session], theme ^cookie[theme], ^default[^cookie[absent];no absent cookie].</p>
</body></html>
""")
page("upload.html", """<html><body>
<p>^upload[file;name] of ^upload[file;size] bytes: ^upload[file;value]</p>
<p>^upload[file;uploads/last.txt]saved; ^form[comment].</p>
</body></html>
""")

settings = ["TESSEL_REQUIRE_HANDLER", "TESSEL_AUTH_NEEDS_USER", "TESSEL_STOP_AT_DOCUMENT_ROOT",
            "TESSEL_INERT_REQUEST_DATA", "TESSEL_SERVER_ERROR_AS_TEXT", "TESSEL_SAFE_ESCAPING",
            "TESSEL_SAFE_ERROR_PAGES", "TESSEL_MULTIPART_AS_SENT"]

def request(kind, page_name, method="GET", query="", body=b"", content_type="", extra=(),
            body_only=False):
    path = os.path.join(site, page_name)
    params = [("GATEWAY_INTERFACE", "CGI/1.1"), ("SERVER_PROTOCOL", "HTTP/1.1"),
              ("SERVER_SOFTWARE", "bench"), ("SERVER_NAME", "localhost"), ("SERVER_PORT", "80"),
              ("REMOTE_ADDR", "127.0.0.1"), ("HTTP_HOST", "localhost"),
              ("HTTP_USER_AGENT", "Mozilla/5.0 (bench)"), ("REQUEST_METHOD", method),
              ("QUERY_STRING", query), ("DOCUMENT_ROOT", site), ("SCRIPT_NAME", "/" + page_name),
              ("SCRIPT_FILENAME", path), ("PATH_TRANSLATED", path),
              ("REQUEST_URI", "/" + page_name + ("?" + query if query else ""))]
    if body:
        params += [("CONTENT_TYPE", content_type), ("CONTENT_LENGTH", str(len(body)))]
    params += [(name, "1") for name in settings] + list(extra)
    with open(os.path.join(work, "requests", kind), "wb") as f:
        lines = "".join("%s=%s\n" % p for p in params) + ("#body-only\n" if body_only else "")
        f.write(lines.encode() + b"\n" + body)

for name in ("small", "table", "macros", "calls"):
    request(name, name + ".html")
request("form", "form.html", "POST", "tag=c",
        b"name=Ann+Lee&title=Hello+%3Cworld%3E&note=a%26b&n=42&x=4x&tag=a&tag=b",
        "application/x-www-form-urlencoded")
request("errors", "errors.html")
request("missing", "missing.html")
request("vars", "vars.html")
# The cookies' expiry is a date a few months ahead, so only the body must repeat.
request("cookie", "cookie.html", extra=[("HTTP_COOKIE", "session=abc123; theme=dark")],
        body_only=True)
boundary = "----bench7MA4YWxkTrZu0gW"
upload = ("--%s\r\nContent-Disposition: form-data; name=\"comment\"\r\n\r\nfirst try\r\n"
          "--%s\r\nContent-Disposition: form-data; name=\"file\"; filename=\"notes.txt\"\r\n"
          "Content-Type: text/plain\r\n\r\n%s\r\n--%s--\r\n" % (
              boundary, boundary, "line of the uploaded file\n" * 400, boundary)).encode()
request("upload", "upload.html", "POST", body=upload,
        content_type="multipart/form-data; boundary=" + boundary)
PY

# ---- the worker ---------------------------------------------------------------------------
# As the run user when root, as a server would start it; it works in its own state folder.
as_user=()
if [[ $(id -u) -eq 0 ]] && id www-data >/dev/null 2>&1; then
    chmod 755 "$work"
    chown -R www-data "$work/state" "$work/site"
    as_user=(setpriv --reuid=www-data --regid=www-data --clear-groups)
fi
env -i -C "$work/state" PATH=/usr/bin:/bin "${as_user[@]}" "$TESSEL" \
    --fastcgi "unix:$work/state/socket" --workers 1 2>"$work/tessel.log" &
parent=$!
for ((i = 0; i < 100; i++)); do
    [[ -S $work/state/socket ]] && break
    sleep 0.1
done
[[ -S $work/state/socket ]] || { cat "$work/tessel.log" >&2; exit 1; }

kinds=(small table macros calls form errors missing vars cookie upload)
files=()
for kind in "${kinds[@]}"; do files+=("$work/requests/$kind"); done

# Each kind once first, to show what it answers.
./client "$work/state/socket" "${#kinds[@]}" 0 "$parent" "${files[@]}"
for kind in "${kinds[@]}"; do
    response=$work/requests/$kind.response
    printf '%-8s %7d bytes, %s, %s\n' "$kind" "$(stat -c %s "$response")" \
        "$(tail -1 "$response")" "$(head -1 "$response" | tr -d '\r')"
    if grep -q '\[invalid operator nosuch\]' "$response"; then :; elif
        grep -q '\[invalid operator' "$response"; then
        echo "warning: $kind uses an operator this build lacks" >&2
    fi
done

echo
echo "requests   worker   VmRSS KB   (load $(cut -d' ' -f1-3 /proc/loadavg))"
started=$(date +%s)
./client "$work/state/socket" "$requests" "$every" "$parent" "${files[@]}" | tee rss |
    awk '{printf "%8d %8d %10d\n", $1, $2, $3}'
seconds=$(($(date +%s) - started))
awk -v s="$seconds" -v n="$requests" 'NR == 1 {first = $3; pid = $2}
    {last = $3; if ($2 != pid) moved = 1}
    END {
        printf "\n%d requests in %d s; VmRSS %d KB at the first report, %d KB at the last: %+d KB\n",
            n, s, first, last, last - first
        if (moved) print "the worker was replaced during the run: see the log"
    }' rss
if [[ -s $work/tessel.log ]]; then
    echo "the program's log:"
    tail -5 "$work/tessel.log"
fi
