#!/usr/bin/env python3
"""Runs every example of one operator reference file (docs/<family>.md) through the program.

An example is a fenced block tagged "page" followed, before the next "page" block, by blocks
tagged "file NAME", "program NAME" (a file made executable), "env", "stdin", "error_log",
"after NAME", and one tagged "output" (the exact response body) or "response" (the exact
response, header lines included). They mean
what the sections of the same names mean to tests/pages/run_page.py, whose machinery runs the
example; "output" is its "body" and "response" its "expect". A block's text is its lines
without the last line break. "page NAME" makes the page the file NAME (default page.html,
requested as /NAME); a block tagged "page not-run" is shown, not run. Every operator heading
("### `name`") needs at least one example (run or not) before the next heading.

Usage: run_examples.py <tessel> <reference.md> [mariadb server folder]. With a server folder,
TESSEL_DB holds the connection string of that server for every example.
"""
import difflib
import os
import re
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True  # no compiled copy of run_page beside the sources
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "pages"))
import run_page  # noqa: E402

FENCE = re.compile(r"^```(.*)$")
HEADING = re.compile(r"^### `([^`]+)`$")
KINDS = {"page", "file", "program", "env", "stdin", "output", "response", "error_log", "after"}
SECTION = {"output": "body", "response": "expect"}


def blocks(path):
    """(tag, argument, text, line number) of every fenced block of a Markdown file, and of
    every operator heading ("### `name`", outside blocks) with the tag "###"."""
    with open(path, "rb") as f:
        lines = f.read().decode("latin-1").split("\n")
    found, i = [], 0
    while i < len(lines):
        m = FENCE.match(lines[i])
        heading = HEADING.match(lines[i])
        i += 1
        if heading:
            found.append(("###", heading.group(1), "", i))
        if not m:
            continue
        start, tag = i, m.group(1).strip().split(" ", 1)
        while i < len(lines) and lines[i] != "```":
            i += 1
        found.append((tag[0], tag[1] if len(tag) > 1 else None, "\n".join(lines[start:i]),
                      start))
        i += 1
    return found


def examples(path):
    """Each runnable example as (line number, run_page sections), and the faults of the file:
    an example without one output, an operator heading without an example."""
    found, errors, current, heading = [], [], None, None
    for tag, arg, text, line in blocks(path) + [("###", None, "", 0)]:
        if tag == "###":
            if heading and not heading[2]:
                errors.append(f"{path}:{heading[1]}: operator {heading[0]} has no example")
            heading, current = [arg, line, False], None
        elif tag == "page":
            current = None if arg == "not-run" else (line, [("page", arg, text)])
            if current:
                found.append(current)
            if heading:
                heading[2] = True
        elif current and tag in KINDS:
            current[1].append((SECTION.get(tag, tag), arg, text))
    for line, sections in found:
        if sum(kind in ("body", "expect") for kind, _, _ in sections) != 1:
            errors.append(f"{path}:{line}: an example needs one output or response block")
    return found, errors


def run(program, sections, db):
    with tempfile.TemporaryDirectory(prefix="tessel-doc-") as root:
        page = run_page.write_files(sections, root)
        env = run_page.build_env(sections, root, page)
        if db:
            env["TESSEL_DB"] = db
        stdin = b"".join(run_page.as_bytes(t, root) for k, _, t in sections if k == "stdin")
        result = subprocess.run([program], input=stdin, capture_output=True, cwd=root,
                                env=env, timeout=60)
        return run_page.check(sections, root, result), result.stderr


def diff(want, got):
    """A unified diff of what the reference shows against what the program printed; a final
    line break is a last, empty line."""
    lines = [text.decode("latin-1").split("\n") for text in (want, got)]
    return "\n".join(difflib.unified_diff(*lines, "reference", "program", lineterm=""))


def connection(server):
    with open(os.path.join(server, "port")) as f:
        return f"tessel:tessel-pw@127.0.0.1:{f.read().strip()}/tessel"


def main():
    program, path = os.path.abspath(sys.argv[1]), sys.argv[2]
    db = connection(os.path.abspath(sys.argv[3])) if len(sys.argv) > 3 else None
    found, errors = examples(path)
    for message in errors:
        print(message)
    failed = len(errors)
    for line, sections in found:
        failures, stderr = run(program, sections, db)
        for what, want, got in failures:
            print(f"{path}:{line}: {what} differs")
            print(diff(want, got))
        if failures and stderr:
            print("--- stderr\n" + stderr.decode("latin-1"))
        failed += bool(failures)
    print(f"{len(found)} examples, {failed} failed")
    sys.exit(1 if failed or not found else 0)


if __name__ == "__main__":
    main()
