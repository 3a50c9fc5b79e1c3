#!/usr/bin/env python3
"""Concurrent chat posts stay exact: 20 visitors post 10 messages each, all at once, each
message a run of the program (as the server would start it). Every message is archived exactly
once and in its visitor's order, the index is the archive's newest 100 lines, and the user list
still holds every visitor whole. The day's archive starts with an unfinished line (an append
that a kill cut short), which the first post writes over.

Usage: chat_posts_test.py PROGRAM
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import time

PROGRAM = os.path.realpath(sys.argv[1])
VISITORS, POSTS = 20, 10
TICKETS = ["%032x" % (0xc0ffee00 + v) for v in range(VISITORS)]
LINE = re.compile(r"^\d{4}-\d\d-\d\d\t\d\d:\d\d:\d\d\tnick(\d+)\tpost (\d+) of nick(\d+)$")


def post(site, visitor, start, failures):
    env = {"PATH": "/usr/bin:/bin", "DOCUMENT_ROOT": site, "SCRIPT_NAME": "/cgi-bin/tessel",
           "REQUEST_URI": "/post.html", "PATH_TRANSLATED": os.path.join(site, "post.html"),
           "REQUEST_METHOD": "GET", "HTTP_COOKIE": "chat=" + TICKETS[visitor]}
    start.wait()
    for n in range(POSTS):
        env["QUERY_STRING"] = "text=post+%d+of+nick%d" % (n, visitor)
        out = subprocess.run([PROGRAM], cwd=site, env=env, capture_output=True).stdout
        if not out.endswith(b"\n\n[]\n"):
            failures.append("nick%d, post %d: %r" % (visitor, n, out[-200:]))


def check(site, failures):
    chat = os.path.join(site, "chat")
    days = sorted(os.listdir(os.path.join(chat, "log")))  # two, should midnight pass
    lines = "".join(open(os.path.join(chat, "log", d)).read() for d in days).splitlines()
    got = {}
    for line in lines:
        m = LINE.match(line)
        if not m or m.group(1) != m.group(3):
            failures.append("archive: a line not as posted: %r" % line)
            continue
        got.setdefault(int(m.group(1)), []).append(int(m.group(2)))
    for v in range(VISITORS):
        if got.get(v) != list(range(POSTS)):
            failures.append("archive: nick%d's posts are %s" % (v, got.get(v)))
    index = open(os.path.join(chat, "index")).read()
    if index != "".join(l + "\n" for l in lines[-100:]):
        failures.append("index: not the archive's newest 100 lines")
    rows = open(os.path.join(chat, "userlist")).read().splitlines()
    whole = [re.fullmatch(r"nick%d\t%s\t\d+\t0" % (v, t), r)
             for (v, t), r in zip(enumerate(TICKETS), rows)]
    if len(rows) != VISITORS or not all(whole):
        failures.append("userlist: %d rows, not every visitor whole: %r" % (len(rows), rows[:3]))


def main():
    site = tempfile.mkdtemp(prefix="tessel-chat.")
    failures = []
    try:
        os.makedirs(os.path.join(site, "chat", "log"))
        with open(os.path.join(site, "chat", "log", time.strftime("%Y-%m-%d")), "w") as f:
            f.write("2026-01-01\t10:00:00\tnick0\tpost 0 of")
        with open(os.path.join(site, "post.html"), "w") as f:
            f.write("[^level[none;^message[^form[text]]]]\n")
        now = int(time.time())
        with open(os.path.join(site, "chat", "userlist"), "w") as f:
            f.writelines("nick%d\t%s\t%d\t0\n" % (v, t, now) for v, t in enumerate(TICKETS))
        start = threading.Barrier(VISITORS)
        threads = [threading.Thread(target=post, args=(site, v, start, failures))
                   for v in range(VISITORS)]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        check(site, failures)
    finally:
        shutil.rmtree(site, ignore_errors=True)
    for f in failures[:20]:
        print("FAIL:", f)
    print("ok: %d posts at once, each kept once" % (VISITORS * POSTS) if not failures else
          "FAIL: %d problems" % len(failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
