#!/usr/bin/env python3
"""Nothing one request sets can be seen by the next: pairs of requests through one resident
worker, one pair per piece of per-request state. The first request changes the piece (and
shows that it did); the second, with other params, must then get exactly what a fresh CGI
process gives it.

Usage: isolation.py <tessel> [mariadb server folder] (with it, the SQL connection's pair runs).
"""
import os
import sys
import tempfile

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import differential  # noqa: E402
from differential import run_examples, run_page  # noqa: E402
from worker import Worker  # noqa: E402


def request(page, env="", files=None, stdin=None, programs=None):
    """A request as run_page's sections: the page, its env lines, files and body."""
    sections = [("page", None, page), ("env", None, env)]
    sections += [("file", name, text) for name, text in (files or {}).items()]
    sections += [("program", name, text) for name, text in (programs or {}).items()]
    if stdin is not None:
        sections.append(("stdin", None, stdin))
    return sections


# The second request of the lock's pair holds the lock and asks another process for it.
PROBE = ("#!/bin/sh\nprintf 'Content-type: text/plain\\n\\n'\n"
         "if flock -n _book.lock true; then echo free; else echo held; fi\n")
NO_GD = "TESSEL_GD_LIBRARY=/nonexistent/libgd.so.3"
PROFILE = "LEAK=profile\nSERVER_NAME=leak.example\nTZ=Asia/Tokyo\nCHARSET=windows-1251\n"

# (piece, first request, what its response shows, second request)
PAIRS = [
    ("variables", request("^var[v;leak]^var[v]"), b"leak", request("[^var[v]]")),
    ("macros", request("^macro_new[m;leak]^macro[m]"), b"leak",
     request("[^macro_exists[m]][^macro[m]]")),
    ("tables and the current table name", request("^context[t]^config[leak]^item[0]"),
     b"leak", request("[^item[0]] [^item[count]] [^item[t;0]]")),
    ("escaping mode", request("^level[none;^form[x]]", "QUERY_STRING=x=%3Cb%3E"), b"<b>",
     request("^form[y]", "QUERY_STRING=y=%3Ci%3E")),
    ("code pages", request("^ascii[^toupper[^char[193]]] ^form[q]",
                           "CHARSET=windows-1251\nSOURCE_CHARSET=koi8-r\nQUERY_STRING=q=%C0"),
     b"-31", request("^ascii[^toupper[^char[193]]] ^form[r]", "QUERY_STRING=r=%C0")),
    ("output switch", request("^download[f.txt]\n", files={"f.txt": "leak"}), b"leak",
     request("shown")),
    ("depth counter", request("^nosuch[]" * 1000), b"recursion", request("^toupper[fresh]")),
    ("compaction", request("^optimize[no]a    b"), b"a    b", request("a    b")),
    ("content type and header lines",
     request("^header[Content-Type;text/plain]^header[X-Leak;1]a    b"), b"X-Leak",
     request("a    b")),
    ("the environment .profile sets",
     request("^env[LEAK]", "TESSEL_STATE_DIR=@ROOT@/state", {"state/.profile": PROFILE}),
     b"profile",
     request("[^env[LEAK]] ^env[SERVER_NAME] ^date[%H;0] [^env[TESSEL_STATE_DIR]] \xe0", "!TZ")),
    ("TZ", request("^date[%H;0]", "TZ=Asia/Tokyo"), b"09", request("^date[%H;0]", "!TZ")),
    ("form entries",
     request("^form[f]", "REQUEST_METHOD=POST\nCONTENT_TYPE=application/x-www-form-urlencoded\n"
             "CONTENT_LENGTH=6\nQUERY_STRING=q=leak", stdin="f=leak"), b"leak",
     request("[^form[f]][^form[q]] ^config[formelements]^item[count]")),
    ("cookies set", request("^cookie[c;leak]set"), b"Set-Cookie", request("[^cookie[c]]")),
    ("color alternation", request("^color[a;b]"), b"b", request("^color[a;b]^color[a;b]")),
    ("switch", request("^switch[x;^case[x;leak]]"), b"leak",
     request("[^case[x;branch]] ^switch[y;^case[x;one]^case[DEFAULT;two]]")),
    ("locks", request("^lock[book;held]"), b"held",
     request("^lock[book;^exec[probe.cgi]]", programs={"probe.cgi": PROBE})),
    ("working folder",
     request("^exec[bin/x.cgi]", "!PATH_TRANSLATED\nSCRIPT_FILENAME=@ROOT@/page.html",
             programs={"bin/x.cgi": "#!/bin/sh\nprintf 'X: 1\\n\\nran'\n"}), b"ran",
     request("^lock[nofolder/x;]logged")),
    ("request URI and page path", request("page"), b"page",
     request("page", "!REQUEST_URI\n!PATH_TRANSLATED")),
    ("a client library that failed to load",
     request("[^startup[s3cret]]", "TESSEL_CRYPT_LIBRARY=/nonexistent/libcrypt.so.1"),
     b"cannot use crypt", request("[^startup[s3cret]]")),
    ("the log line of a library that failed to load",
     request("^gif_template[t.gif;;out.gif]drawn", NO_GD), b"drawn",
     request("^gif_template[t.gif;;out.gif]drawn again", NO_GD)),
]


def sql_pairs(server):
    """A session variable set on the first request's connection, which the second must not
    find on its own; and the socket the second request's environment names, after a first
    request that named none."""
    db = run_examples.connection(server)
    socket = "MYSQL_UNIX_PORT=" + os.path.join(server, "mariadbd.sock")
    first = f"^server[{db};^sql[set @leak='leak']^sql[select @leak as v]^item[v]]"
    second = f"[^sql[select 1 as v]] ^server[{db};^sql[select ifnull(@leak, 'new') as v]^item[v]]"
    by_socket = "^server[tessel:tessel-pw;^sql[select current_user() as u]^item[u]]"
    return [("the SQL connection", request(first), b"leak", request(second)),
            ("the SQL client's socket", request(first), b"leak", request(by_socket, socket))]


def check_pair(program, worker, site, pair, failure):
    """The faults of one pair: the first request did not show its change, or the second got
    other than a fresh process gives it."""
    _, first, shows, second = pair
    found = []
    setting = differential.run_worker(worker, site, first, {})
    if shows not in setting["response"]:
        found.append(("the first request's response", shows, setting["response"]))
    cgi = differential.run_cgi(program, site, second, {})
    resident = differential.run_worker(worker, site, second, {})
    return found + differential.differences(cgi, resident, failure)


def main():
    program = os.path.abspath(sys.argv[1])
    server = os.path.abspath(sys.argv[2]) if len(sys.argv) > 2 else None
    pairs = PAIRS + (sql_pairs(server) if server else [])
    if not server:
        print("skipped without a database server: the SQL connection")
    failure = differential.failed_response()
    failed = 0
    with tempfile.TemporaryDirectory(prefix="tessel-isolation-") as scratch:
        site = os.path.join(scratch, "site")
        os.mkdir(site)
        worker = Worker(program, site)
        pid = worker.pid()
        try:
            for pair in pairs:
                found = check_pair(program, worker, site, pair, failure)
                more, pid, _ = differential.worker_differences(worker, pid, 0)
                for what, want, got in found + more:
                    print(f"SEEN BY THE NEXT REQUEST: {pair[0]}: {what}")
                    print(run_page.unified_diff(what, differential.show(want),
                                                differential.show(got)))
                failed += bool(found + more)
        finally:
            worker.stop()
    print(f"{len(pairs)} pairs, {failed} failed")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
