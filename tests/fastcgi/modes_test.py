#!/usr/bin/env python3
"""The ways the resident mode is started, and the limits that end one request only.

Usage: modes_test.py PROGRAM

- on a listening socket as standard input (what a FastCGI process manager hands over), and on
  an inherited descriptor (systemd's socket activation);
- on a loopback port, and never on any other address;
- a request past --cpu-limit or --memory-limit gets a 500 and its worker is replaced, while a
  request on the other worker is answered;
- run by a server, the program takes no --fastcgi from its command line (a query string
  without "=" arrives there).
"""
import atexit
import os
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.dirname(__file__))
import fcgi_client  # noqa: E402

PROGRAM = os.path.abspath(sys.argv[1])
SITE = tempfile.mkdtemp(prefix="tessel-modes-")
FAILED_STATUS = b"Status: 500 Internal Server Error\n"
failures = []
started = []


def start(args, **options):
    """Popen for a server of the test: it writes nothing on the test's output (which the test
    runner waits on until every holder closes it), and is killed if the test ends early."""
    options.setdefault("stdout", subprocess.DEVNULL)
    options.setdefault("stdin", subprocess.DEVNULL)
    process = subprocess.Popen(args, **options)
    started.append(process)
    return process


@atexit.register
def kill_left():
    for process in started:
        if process.poll() is None:
            process.kill()  # its workers follow: they end with their parent


def check(what, ok, detail=""):
    print(("ok   " if ok else "FAIL ") + what + ("" if ok else ": " + str(detail)))
    if not ok:
        failures.append(what)


def write(name, text):
    with open(os.path.join(SITE, name), "w") as f:
        f.write(text)


def params(page):
    return {"REQUEST_METHOD": "GET", "GATEWAY_INTERFACE": "CGI/1.1", "REQUEST_URI": "/" + page,
            "PATH_TRANSLATED": os.path.join(SITE, page), "SCRIPT_NAME": "/cgi-bin/tessel",
            "DOCUMENT_ROOT": SITE, "TESSEL_STATE_DIR": SITE}


def body(response):
    return response.split(b"\n\n", 1)[-1]


def wait_for_socket(path, process):
    deadline = time.monotonic() + 30
    while not os.path.exists(path):
        if process.poll() is not None or time.monotonic() > deadline:
            raise RuntimeError("no socket at " + path)
        time.sleep(0.01)


def stop(process):
    process.send_signal(signal.SIGTERM)
    try:
        return process.wait(timeout=30)
    except subprocess.TimeoutExpired:
        process.kill()
        return None


def listening_unix_socket(path):
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    listener.bind(path)
    listener.listen(16)
    return listener


def started_on(listener, args, stdin=False):
    env = {k: v for k, v in os.environ.items() if k.endswith("SAN_OPTIONS")}
    if stdin:
        return start([PROGRAM], stdin=listener.fileno(), env=env, cwd=SITE)
    return start([PROGRAM] + args, pass_fds=[listener.fileno()], env=env, cwd=SITE)


write("fine.html", "fine ^eval[6*7]\n")
write("spin.html", "^for[i;1;2000000000;^var[x;1]]\n")
write("grow.html", "^config[a;x]^menu[^config[b;y]]\n")
scratch = tempfile.mkdtemp(prefix="tessel-modes-run-")

# ---- a listening socket handed over --------------------------------------------------------
for how, args, stdin in (("standard input", [], True), ("an inherited descriptor", None, False)):
    path = os.path.join(scratch, "handed-" + str(stdin))
    listener = listening_unix_socket(path)
    process = started_on(listener, args or ["--fastcgi", "fd:%d" % listener.fileno(),
                                             "--workers", "2"], stdin)
    listener.close()
    out, _, status = fcgi_client.request(path, params("fine.html"))
    check("serves on " + how, body(out) == b"fine 42\n" and status == 0, out)
    check("stops on SIGTERM when started on " + how, stop(process) == 0)

# ---- addresses ------------------------------------------------------------------------------
port_socket = socket.socket()
port_socket.bind(("127.0.0.1", 0))
port = port_socket.getsockname()[1]
port_socket.close()
process = start([PROGRAM, "--fastcgi", "127.0.0.1:%d" % port, "--workers", "1"], cwd=SITE)
deadline = time.monotonic() + 30
while True:
    try:
        socket.create_connection(("127.0.0.1", port), timeout=5).close()
        check("listens on a loopback port", True)
        break
    except OSError as error:
        if time.monotonic() > deadline or process.poll() is not None:
            check("listens on a loopback port", False, error)
            break
        time.sleep(0.05)
stop(process)
for address in ("0.0.0.0:%d" % port, "192.0.2.1:9000", "[::]:%d" % port, "example.org:80"):
    refused = subprocess.run([PROGRAM, "--fastcgi", address], cwd=SITE, capture_output=True,
                             stdin=subprocess.DEVNULL, timeout=30)
    check("refuses to listen on " + address, refused.returncode == 2 and b"loopback" in
          refused.stderr, refused.stderr)

# ---- limits end one request ----------------------------------------------------------------
def limited(name, limits):
    path = os.path.join(scratch, name)
    with open(path + ".stderr", "wb") as said:
        process = start([PROGRAM, "--fastcgi", "unix:" + path, "--workers", "2"] + limits,
                        cwd=SITE, stderr=said)
    wait_for_socket(path, process)
    return path, process


def served_after(path, process, what):
    """A replaced worker serves; the parent said it replaced one."""
    for _ in range(3):
        out, _, status = fcgi_client.request(path, params("fine.html"))
        check(what + ": the next requests are served", body(out) == b"fine 42\n", out)
    # The worker ends once its client has the answer: give the parent time to see it.
    deadline = time.monotonic() + 10
    while True:
        with open(path + ".stderr") as f:
            said = f.read()
        if "another takes its place" in said or time.monotonic() > deadline:
            break
        time.sleep(0.05)
    stop(process)
    check(what + ": the parent replaced the worker", said.count("another takes its place") == 1,
          said)


def logged(what):
    with open(os.path.join(SITE, "error_log")) as f:
        log = f.read()
    os.unlink(os.path.join(SITE, "error_log"))
    return what in log


# Each server meets one limit, whatever the machine's speed: 2 s of CPU with ample memory,
# then ample CPU with 64 MB.
path, process = limited("cpu", ["--cpu-limit", "2"])
spun = {}
spinner = threading.Thread(target=lambda: spun.update(
    zip(("out", "err", "status"), fcgi_client.request(path, params("spin.html")))))
spinner.start()
time.sleep(0.3)
out, _, status = fcgi_client.request(path, params("fine.html"))
check("the other worker answers while one spins", body(out) == b"fine 42\n", out)
spinner.join(60)
check("CPU limit: 500 and status 254",
      spun.get("out", b"").startswith(FAILED_STATUS) and spun.get("status") == 254, spun)
check("CPU limit: logged", logged("spin.html: CPU time limit exceeded"))
served_after(path, process, "CPU limit")

# A sanitizer's shadow memory does not fit in a small address space: no worker could start.
if "ASAN_OPTIONS" in os.environ:
    print("skip memory limit: the sanitizer build cannot run in 64 MB of address space")
else:
    path, process = limited("memory", ["--cpu-limit", "60", "--memory-limit", str(64 << 20)])
    out, _, status = fcgi_client.request(path, params("grow.html"))
    check("memory limit: 500 and status 254", out.startswith(FAILED_STATUS) and status == 254,
          out)
    check("memory limit: logged", logged("grow.html: unable to "))
    served_after(path, process, "memory limit")

# ---- under a server the command line is not the program's ----------------------------------
ignored = os.path.join(scratch, "ignored")
cgi = subprocess.run([PROGRAM, "--fastcgi", "unix:" + ignored], cwd=SITE, capture_output=True,
                     env=params("fine.html"), timeout=30)
check("a CGI request's arguments start no server",
      body(cgi.stdout) == b"fine 42\n" and not os.path.exists(ignored), cgi.stdout)

sys.exit(1 if failures else 0)
