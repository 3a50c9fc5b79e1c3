#!/usr/bin/env python3
"""Runs one black-box page case through the program and compares what it printed.

A case file holds sections opened by "=== kind [arg]" lines; a section's content runs to the
next such line, without its final newline. Kinds: page, file, env, stdin, expect, body,
contains, status, error_log, after, program (a file made executable). @ROOT@ stands for the
case's site folder everywhere.
"""
import difflib
import os
import re
import subprocess
import sys
import tempfile

HEADER = re.compile(r"^=== (\S+)(?: (.*))?$")
LOG_PREFIX = re.compile(rb"^\[\d\d/\w{3}/\d{4} \d\d:\d\d:\d\d\] ")


def parse(path):
    sections, kind, arg, lines = [], None, None, []
    with open(path, "rb") as f:
        raw = f.read().decode("latin-1")
    for line in raw.split("\n"):
        m = HEADER.match(line)
        if m:
            if kind:
                sections.append((kind, arg, "\n".join(lines)))
            kind, arg, lines = m.group(1), m.group(2), []
        elif kind:
            lines.append(line)
    if kind:
        text = "\n".join(lines)
        sections.append((kind, arg, text[:-1] if text.endswith("\n") else text))
    return sections


def as_bytes(text, root):
    return text.replace("@ROOT@", root).encode("latin-1")


def build_env(sections, root, page):
    env = {
        "PATH": os.environ.get("PATH", "/usr/bin:/bin"),
        "DOCUMENT_ROOT": root,
        "SCRIPT_NAME": "/cgi-bin/tessel",
        "REQUEST_METHOD": "GET",
        "REMOTE_ADDR": "127.0.0.1",
        "SERVER_NAME": "localhost",
        "TZ": "UTC",
        "REQUEST_URI": "/" + page,
        "PATH_TRANSLATED": os.path.join(root, page),
    }
    # A sanitizer build reads its options (where reports go) from these.
    for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"):
        if name in os.environ:
            env[name] = os.environ[name]
    for kind, _, text in sections:
        if kind != "env":
            continue
        for line in text.replace("@ROOT@", root).split("\n"):
            if line.startswith("!"):
                env.pop(line[1:], None)
            elif "=" in line:
                key, value = line.split("=", 1)
                env[key] = value
    return env


def write_files(sections, root):
    page = "page.html"
    for kind, arg, text in sections:
        if kind not in ("page", "file", "program"):
            continue
        name = arg or "page.html"
        if kind == "page":
            page = name
        target = os.path.join(root, name)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        with open(target, "wb") as f:
            f.write(as_bytes(text, root))
        if kind == "program":
            os.chmod(target, 0o755)
    return page


def check(sections, root, result):
    failures = []
    out = result.stdout
    for kind, arg, text in sections:
        want = as_bytes(text, root)
        if kind == "expect" and out != want:
            failures.append(("stdout", want, out))
        elif kind == "body":
            head, sep, body = out.partition(b"\n\n")
            if not sep or body != want:
                failures.append(("body", want, body if sep else out))
            m = re.search(rb"Content-length: (\d+)", head)
            if sep and (not m or int(m.group(1)) != len(body)):
                failures.append(("Content-length", str(len(body)).encode(), head))
        elif kind == "contains":
            for line in want.split(b"\n"):
                if line not in out:
                    failures.append(("contains", line, out))
        elif kind == "status" and result.returncode != int(text.strip()):
            failures.append(("status", text.strip().encode(), str(result.returncode).encode()))
        elif kind == "error_log":
            got = read(os.path.join(root, "error_log"))
            got = b"".join(LOG_PREFIX.sub(b"", l) for l in got.splitlines(True))
            if got != want + b"\n":
                failures.append(("error_log", want + b"\n", got))
        elif kind == "after":
            got = read(os.path.join(root, arg))
            if got != want:
                failures.append(("file " + arg, want, got))
    if not any(k == "status" for k, _, _ in sections) and result.returncode != 0:
        failures.append(("status", b"0", str(result.returncode).encode()))
    return failures


def unified_diff(what, want, got):
    """The difference as a unified diff of lines, each line shown as a byte literal so that
    tabs, carriage returns and a missing last line feed are visible."""
    def lines(data):
        return [repr(line)[2:-1] + "\n" for line in data.splitlines(True)]
    diff = difflib.unified_diff(lines(want), lines(got), f"{what} expected", f"{what} got")
    return "".join(diff) or f"--- {what}: expected {want!r}, got {got!r}\n"


def read(path):
    try:
        with open(path, "rb") as f:
            return f.read()
    except OSError:
        return b"(missing)"


def main():
    program, case = os.path.abspath(sys.argv[1]), sys.argv[2]
    sections = parse(case)
    with tempfile.TemporaryDirectory(prefix="tessel-page-") as root:
        page = write_files(sections, root)
        stdin = b"".join(as_bytes(t, root) for k, _, t in sections if k == "stdin")
        result = subprocess.run([program], input=stdin, capture_output=True, cwd=root,
                                env=build_env(sections, root, page), timeout=60)
        failures = check(sections, root, result)
        for what, want, got in failures:
            print(unified_diff(what, want, got))
        if result.stderr:
            print("--- stderr\n" + result.stderr.decode("latin-1"))
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
