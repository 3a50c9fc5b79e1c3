#!/usr/bin/env python3
"""Kills the program with SIGKILL at random instants while it replaces a file, and checks that
every file it writes holds its old content or its new content, whole, after each kill.

Usage: kill_test.py PROGRAM [TRIALS]   (TRIALS per writer, default 60; 300 for a long run)

Each writer (save, a cache fill, upload) renders a page that writes about 2 MB; the kill lands
anywhere from before the program starts to after it ends. Prints, per writer, how many runs
were killed before their end and how many files were found torn (which fails the test).
"""
import os
import random
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


# Each writer: the page, the file it replaces (relative to the site), what that file holds
# before (None: absent) and the request's method and body.
WRITERS = {
    "save": ("^save[book;^include[asis;new.txt]]", "_book", OLD, None),
    "cache": ("^cache[key;^include[asis;new.txt]]", "cache/key_", None, None),
    "upload": ("^upload[f;photo.bin]", "photo.bin", OLD, upload_body()),
}


def run(site, page, body, delay=None):
    """Starts the program on the page and kills it after delay seconds; True when the kill
    ended it. Without a delay it runs to its end, and the time it took is returned."""
    env = {"PATH": "/usr/bin:/bin", "DOCUMENT_ROOT": site, "SCRIPT_NAME": "/cgi-bin/tessel",
           "REQUEST_URI": "/page.html", "PATH_TRANSLATED": os.path.join(site, "page.html"),
           "REQUEST_METHOD": "POST" if body else "GET"}
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


def prepare(site, page, target, before):
    shutil.rmtree(site, ignore_errors=True)
    os.makedirs(os.path.join(site, "cache"))
    with open(os.path.join(site, "page.html"), "w") as f:
        f.write(page + "\n")
    with open(os.path.join(site, "new.txt"), "wb") as f:
        f.write(NEW)
    if before is not None:
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
        for name, (page, target, before, body) in WRITERS.items():
            prepare(site, page, target, before)
            whole = run(site, page, body)
            killed = torn = 0
            for _ in range(TRIALS):
                prepare(site, page, target, before)
                killed += run(site, page, body, random.uniform(0, whole * 1.2))
                got = read(os.path.join(site, target))
                if got not in (before, NEW):
                    torn += 1
                leftovers = [n for n in os.listdir(os.path.dirname(os.path.join(site, target)))
                             if ".tmp-" in n]
                for n in leftovers:  # a temporary file a kill left: never read as the file
                    os.unlink(os.path.join(os.path.dirname(os.path.join(site, target)), n))
            print("%s: %d trials, %d killed before their end, %d torn"
                  % (name, TRIALS, killed, torn))
            failed |= torn > 0
    finally:
        shutil.rmtree(work, ignore_errors=True)
    print("FAIL: a killed writer left a torn file" if failed else "ok: no torn file")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
