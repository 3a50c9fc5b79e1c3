#!/usr/bin/env python3
"""Kills the program with SIGKILL at random instants while it replaces a file, and checks that
every file it writes holds its old content or its new content, whole, after each kill.

Usage: kill_test.py PROGRAM [TRIALS]   (TRIALS per writer, default 60; 300 for a long run)

Each writer (save, a cache fill, upload) renders a page that writes about 2 MB, and a chat post
rewrites a 1.4 MB user list and the index and appends to the day's archive; the kill lands
anywhere from before the program starts to after it ends. Prints, per writer, how many runs
were killed before their end and how many files were found torn (which fails the test).
"""
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

PROGRAM = os.path.realpath(sys.argv[1])
TRIALS = int(sys.argv[2]) if len(sys.argv) > 2 else 60
BOUNDARY = "xyz42"

OLD = b"".join(b"old %d\told text of row %d\n" % (i, i) for i in range(60000))
NEW = b"".join(b"new %d\tnew text of row %d\n" % (i, i) for i in range(60000))


def upload_body():
    head = ('--%s\r\nContent-Disposition: form-data; name="f"; filename="p.bin"\r\n\r\n'
            % BOUNDARY).encode()
    return head + NEW + ("\r\n--%s--\r\n" % BOUNDARY).encode()


# The chat: ann posts. The idle visitor listed first leaves, so the whole user list moves up
# a line; the index drops its oldest message. Times the program writes are masked.
TICKET = b"0123456789abcdef" * 2
USERS = (b"gone\t" + b"e" * 32 + b"\t1\t0\nann\t" + TICKET + b"\t4000000000\t0\n"
         + b"".join(b"v%d\t%032x\t4000000000\t0\n" % (i, i) for i in range(25000)))
MESSAGES = b"".join(b"2026-01-01\t10:00:00\tbob\t%d %s\n" % (i, b"x" * 900) for i in range(100))
POST = b"2026-01-01\t10:00:00\tann\tkill test message\n"
ARCHIVE = b"".join(MESSAGES.splitlines(True)[:20])
TODAY = time.strftime("%Y-%m-%d")


def masked(text):
    if text is None:
        return None
    text = re.sub(rb"(?m)^(ann\t%s\t)\d+" % TICKET, rb"\g<1>0", text)
    return re.sub(rb"(?m)^\d{4}-\d\d-\d\d\t\d\d:\d\d:\d\d\t", b"", text)


def read_lines(text):
    """The archive as readers see it: an unfinished last line (an append cut short) is
    skipped."""
    return masked(text and text[:text.rfind(b"\n") + 1])


def without_first_line(text):
    return text[text.index(b"\n") + 1:]


# Each writer: the page; the files it changes (relative to the site), each with what it holds
# before and after a run to the end (None: absent) and the view of it that must be one of the
# two after a kill (None: the bytes); the request's body (a POST when given) and cookie.
WRITERS = {
    "save": ("^save[book;^include[asis;new.txt]]", {"_book": (OLD, NEW, None)}, None, None),
    "cache": ("^cache[key;^include[asis;new.txt]]", {"cache/key_": (None, NEW, None)}, None, None),
    "upload": ("^upload[f;photo.bin]", {"photo.bin": (OLD, NEW, None)}, upload_body(), None),
    "chat": ("^message[kill test message]",
             {"chat/userlist": (USERS, without_first_line(USERS), masked),
              "chat/index": (MESSAGES, without_first_line(MESSAGES) + POST, masked),
              "chat/log/" + TODAY: (ARCHIVE, ARCHIVE + POST, read_lines)},
             None, b"chat=" + TICKET),
}


def run(site, page, body, cookie, delay=None):
    """Starts the program on the page and kills it after delay seconds; True when the kill
    ended it. Without a delay it runs to its end, and the time it took is returned."""
    env = {"PATH": "/usr/bin:/bin", "DOCUMENT_ROOT": site, "SCRIPT_NAME": "/cgi-bin/tessel",
           "REQUEST_URI": "/page.html", "PATH_TRANSLATED": os.path.join(site, "page.html"),
           "REQUEST_METHOD": "POST" if body else "GET"}
    if cookie:
        env["HTTP_COOKIE"] = cookie.decode()
    if body:
        env["CONTENT_TYPE"] = "multipart/form-data; boundary=" + BOUNDARY
        env["CONTENT_LENGTH"] = str(len(body))
    start = time.monotonic()
    child = subprocess.Popen([PROGRAM], cwd=site, env=env, stdin=subprocess.PIPE,
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    if body:
        child.stdin.write(body)
    child.stdin.close()
    if delay is None:
        child.wait()
        return time.monotonic() - start
    time.sleep(delay)
    child.send_signal(signal.SIGKILL)
    return child.wait() == -signal.SIGKILL


def prepare(site, page, files):
    shutil.rmtree(site, ignore_errors=True)
    os.makedirs(os.path.join(site, "cache"))
    with open(os.path.join(site, "page.html"), "w") as f:
        f.write(page + "\n")
    with open(os.path.join(site, "new.txt"), "wb") as f:
        f.write(NEW)
    for target, (before, _, _) in files.items():
        if before is not None:
            os.makedirs(os.path.dirname(os.path.join(site, target)), exist_ok=True)
            with open(os.path.join(site, target), "wb") as f:
                f.write(before)


def read(path):
    try:
        with open(path, "rb") as f:
            return f.read()
    except OSError:
        return None


def main():
    work = tempfile.mkdtemp(prefix="tessel-kill.")
    failed = False
    try:
        site = os.path.join(work, "site")
        for name, (page, files, body, cookie) in WRITERS.items():
            prepare(site, page, files)
            whole = run(site, page, body, cookie)
            for target, (_, after, view) in files.items():
                view = view or (lambda text: text)
                if view(read(os.path.join(site, target))) != view(after):
                    print("%s: a run to its end leaves %s wrong" % (name, target))
                    failed = True
            killed = torn = 0
            for _ in range(TRIALS):
                prepare(site, page, files)
                killed += run(site, page, body, cookie, random.uniform(0, whole * 1.2))
                for target, (before, after, view) in files.items():
                    view = view or (lambda text: text)
                    got = view(read(os.path.join(site, target)))
                    torn += got not in (view(before), view(after))
                # A temporary file a kill left is never read as the file.
                for folder in {os.path.dirname(os.path.join(site, t)) for t in files}:
                    for n in os.listdir(folder):
                        if ".tmp-" in n:
                            os.unlink(os.path.join(folder, n))
            print("%s: %d trials, %d killed before their end, %d torn"
                  % (name, TRIALS, killed, torn))
            failed |= torn > 0
    finally:
        shutil.rmtree(work, ignore_errors=True)
    print("FAIL: a killed writer left a torn file" if failed else "ok: no torn file")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
