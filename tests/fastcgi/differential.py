#!/usr/bin/env python3
"""Every page case and reference example, run once by the CGI program and once by one resident
worker, in a random order: the two runs must print the same response, end with the same
status, log the same lines and leave the same files.

Usage: differential.py <tessel> [mariadb server folder]. With a server folder the SQL cases
(tests/sql) and the reference files whose examples read TESSEL_DB run too. The order's seed is
printed; TESSEL_DIFF_SEED=N runs the same order again.

Both runs of a case work in the same site folder, which is the worker's starting folder; it is
emptied and the case's files written anew before each run. Where the CGI run printed no
complete header, the worker must answer with the failure response. A case whose output varies
from run to run (a ticket, the time) is compared by the case's own checks instead, when a
second CGI run differs from the first as well. The worker must stay the same process, except
after a request that ends it (a zero divisor, a fatal error): then another must take its place.
"""
import ast
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True  # no compiled copies beside the sources
HERE = os.path.dirname(os.path.abspath(__file__))
TESTS = os.path.dirname(HERE)
PROJECT = os.path.dirname(TESTS)
sys.path[:0] = [HERE, os.path.join(TESTS, "pages"), os.path.join(TESTS, "docs")]
import run_examples  # noqa: E402
import run_page  # noqa: E402
from worker import Worker  # noqa: E402

# Statuses after which the worker must be replaced: a zero divisor's SIGFPE, a fatal log line
# (exhausted memory among them).
REPLACING = {128 + 8, 254}
# What a run leaves that both runs of a case must leave alike.
KEYS = ("response", "status", "error_log", "files", "folder")
SANITIZER_REPORT = re.compile(r"ERROR: \w+Sanitizer|runtime error:")


def failed_response():
    """RESIDENT_FAILED_RESPONSE, read from program/resident.h."""
    with open(os.path.join(PROJECT, "program", "resident.h")) as f:
        text = f.read()
    body = re.search(r"RESIDENT_FAILED_RESPONSE\[\] =\s*((?:\"(?:[^\"\\]|\\.)*\"\s*)+);", text)
    return "".join(ast.literal_eval(s) for s in re.findall(r"\"(?:[^\"\\]|\\.)*\"",
                                                              body.group(1))).encode()


def header_complete(response):
    """True when the response holds lines up to an empty one, as a server needs."""
    lines = response.split(b"\n")
    return any(line in (b"", b"\r") for line in lines[:-1])


# ---- the cases ----------------------------------------------------------------------------

def page_cases(folder, fill=None):
    cases = []
    for root, _, files in os.walk(folder):
        for name in sorted(files):
            if name.endswith(".page"):
                path = os.path.join(root, name)
                label = os.path.relpath(path, TESTS)[:-len(".page")]
                cases.append((label, filled_sections(path, fill) if fill else
                              run_page.parse(path), {}))
    return cases


def filled_sections(path, values):
    """The sections of an SQL case with its server's placeholders filled in."""
    with open(path, "rb") as f:
        text = f.read().decode("latin-1")
    for key, value in values.items():
        text = text.replace(key, value)
    with tempfile.NamedTemporaryFile("wb", suffix=".page", delete=False) as f:
        f.write(text.encode("latin-1"))
    try:
        return run_page.parse(f.name)
    finally:
        os.unlink(f.name)


def example_cases(server):
    docs = os.path.join(PROJECT, "docs")
    files = [os.path.join(docs, n) for n in sorted(os.listdir(docs)) if n.endswith(".md") and
             n not in ("README.md", "settings.md", "DEVELOPING.md")]
    cases, skipped = [], []
    for path in files + [os.path.join(PROJECT, "README.md")]:
        with open(path, "rb") as f:
            uses_db = b"TESSEL_DB" in f.read()
        if uses_db and not server:
            skipped.append(os.path.basename(path))
            continue
        extra = {"TESSEL_DB": run_examples.connection(server)} if uses_db else {}
        for line, sections in run_examples.examples(path)[0]:
            cases.append((f"docs/{os.path.basename(path)}:{line}", sections, extra))
    return cases, skipped


def all_cases(server):
    cases = page_cases(os.path.join(TESTS, "pages"))
    examples, skipped = example_cases(server)
    if server:
        with open(os.path.join(server, "port")) as f:
            port = f.read().strip()
        cases += page_cases(os.path.join(TESTS, "sql"), {
            "@DB@": f"tessel:tessel-pw@127.0.0.1:{port}/tessel",
            "@DB_PORT@": port,
            "@DB_SOCKET@": os.path.join(server, "mariadbd.sock")})
    else:
        skipped.append("tests/sql")
    return cases + examples, skipped


# ---- one run ------------------------------------------------------------------------------

def prepare(site, sections, extra):
    """Empties the site folder and writes the case's files; returns (environment, body)."""
    for name in os.listdir(site):
        path = os.path.join(site, name)
        if os.path.isdir(path) and not os.path.islink(path):
            shutil.rmtree(path)
        else:
            os.unlink(path)
    page = run_page.write_files(sections, site)
    env = run_page.build_env(sections, site, page)
    env.update(extra)
    if "ASAN_OPTIONS" in env:
        # A sanitizer build's leak check at exit doubles the time of each CGI run; the page
        # cases check the program's leaks already.
        env["ASAN_OPTIONS"] += ":detect_leaks=0"
    body = b"".join(run_page.as_bytes(t, site) for k, _, t in sections if k == "stdin")
    return env, body


def outcome(site, sections, stdout, status):
    """What a run left: response, status, masked error log, checked files, the folder's file
    names, and which of the case's own checks failed."""
    log = run_page.read(os.path.join(site, "error_log"))
    log = b"".join(run_page.LOG_PREFIX.sub(b"", line) for line in log.splitlines(True))
    checked = {arg: run_page.read(os.path.join(site, arg)) for kind, arg, _ in sections
               if kind == "after"}
    names = sorted(os.path.relpath(os.path.join(root, n), site)
                   for root, dirs, files in os.walk(site) for n in dirs + files)
    result = subprocess.CompletedProcess([], status, stdout, b"")
    failures = [what for what, _, _ in run_page.check(sections, site, result)]
    return {"response": stdout, "status": status, "error_log": log, "files": checked,
            "folder": names, "checks": failures}


def run_cgi(program, site, sections, extra):
    env, body = prepare(site, sections, extra)
    result = subprocess.run([program], input=body, capture_output=True, cwd=site, env=env,
                            timeout=60)
    status = result.returncode if result.returncode >= 0 else 128 - result.returncode
    return outcome(site, sections, result.stdout, status)


def run_worker(worker, site, sections, extra):
    env, body = prepare(site, sections, extra)
    stdout, _, status = worker.request(env, body)
    return outcome(site, sections, stdout, status)


# ---- comparing ------------------------------------------------------------------------------

def differences(cgi, resident, failure):
    """What the worker's run did otherwise than the CGI run, as (what, cgi, worker)."""
    found = []
    want = cgi["response"] if header_complete(cgi["response"]) else failure
    if resident["response"] != want:
        found.append(("response", want, resident["response"]))
    for key in KEYS[1:]:
        if resident[key] != cgi[key]:
            found.append((key, cgi[key], resident[key]))
    return found


def show(value):
    if isinstance(value, bytes):
        return value
    return repr(value).encode()


def compare_case(program, worker, site, case, failure):
    """The worker's status and the differences of one case (none when the worker did as the
    CGI program did)."""
    _, sections, extra = case
    cgi = run_cgi(program, site, sections, extra)
    resident = run_worker(worker, site, sections, extra)
    found = differences(cgi, resident, failure)
    again = run_cgi(program, site, sections, extra) if found else cgi
    if any(again[key] != cgi[key] for key in KEYS):
        # The case varies by itself: the worker must pass the checks the CGI run passes.
        found = []
        if header_complete(cgi["response"]) and resident["checks"] != cgi["checks"]:
            found.append(("checks failed", show(cgi["checks"]), show(resident["checks"])))
            found += [(k, cgi[k], resident[k]) for k in ("response", "error_log")
                      if cgi[k] != resident[k]]
    return resident["status"], found


def worker_differences(worker, pid, status):
    """What went wrong with the worker process in one case, the worker's pid afterwards and
    whether it was replaced. It writes nothing on its standard output, and stays the same
    process unless the request ended with a status that ends it."""
    found = []
    stray = worker.stray_output()
    if stray:
        found.append(("the worker's standard output", b"", stray))
    if status in REPLACING:
        try:
            return found, worker.replaced(pid), True
        except RuntimeError as e:
            return found + [("worker replaced", b"a new worker", str(e).encode())], pid, False
    now = worker.pid()
    if now != pid:
        found.append(("worker", str(pid).encode(), str(now).encode()))
    return found, now, False


def run_all(program, site, cases):
    """Runs every case through both; returns how many differ and how often the worker was
    replaced, and the worker's standard error."""
    failure = failed_response()
    failed = replaced = 0
    worker = Worker(program, site)
    pid, previous = worker.pid(), "none"
    try:
        for case in cases:
            status, found = compare_case(program, worker, site, case, failure)
            more, pid, new = worker_differences(worker, pid, status)
            for what, want, got in found + more:
                print(f"DIFFERENCE {case[0]} (previous case {previous}): {what}")
                print(run_page.unified_diff(what, show(want), show(got)))
            failed += bool(found + more)
            replaced += new
            previous = case[0]
    finally:
        log = worker.stop()
    return failed, replaced, log


def main():
    program = os.path.abspath(sys.argv[1])
    server = os.path.abspath(sys.argv[2]) if len(sys.argv) > 2 else None
    seed = int(os.environ.get("TESSEL_DIFF_SEED") or random.randrange(1 << 32))
    print(f"seed {seed} (TESSEL_DIFF_SEED={seed} runs this order again)")
    cases, skipped = all_cases(server)
    for what in skipped:
        print(f"skipped without a database server: {what}")
    random.Random(seed).shuffle(cases)
    started = time.monotonic()
    with tempfile.TemporaryDirectory(prefix="tessel-diff-") as scratch:
        site = os.path.join(scratch, "site")
        os.mkdir(site)
        failed, replaced, log = run_all(program, site, cases)
    reports = [line for line in log.splitlines() if SANITIZER_REPORT.search(line)]
    for line in reports:
        print("worker: " + line)
    print(f"{len(cases)} cases in {time.monotonic() - started:.1f} s, {failed} differ, "
          f"worker replaced {replaced} times")
    sys.exit(1 if failed or reports else 0)


if __name__ == "__main__":
    main()
