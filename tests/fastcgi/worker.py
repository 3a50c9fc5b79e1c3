#!/usr/bin/env python3
"""Runs `tessel --fastcgi` with one worker for a test, and tells which process the worker is.

The parent starts with an empty environment (but for a sanitizer build's options), so that a
request's params are the whole environment it runs with, as a CGI run's environment is.
"""
import os
import shutil
import signal
import subprocess
import tempfile
import time

import fcgi_client

SANITIZER_OPTIONS = ("ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS")
WAIT_SECONDS = 30  # a sanitizer build starts slowly on a busy machine


class Worker:
    def __init__(self, program, folder):
        self.scratch = tempfile.mkdtemp(prefix="tessel-fcgi-")
        self.socket = os.path.join(self.scratch, "socket")
        self.log_path = os.path.join(self.scratch, "stderr")
        self.stdout_path = os.path.join(self.scratch, "stdout")
        self.stdout_seen = 0
        env = {name: os.environ[name] for name in SANITIZER_OPTIONS if name in os.environ}
        with open(self.log_path, "wb") as log, open(self.stdout_path, "wb") as out:
            self.parent = subprocess.Popen(
                [program, "--fastcgi", "unix:" + self.socket, "--workers", "1"], cwd=folder,
                env=env, stdin=subprocess.DEVNULL, stdout=out, stderr=log)
        self.wait_for(lambda: os.path.exists(self.socket) and self.pid(wait=False))

    def wait_for(self, ready):
        deadline = time.monotonic() + WAIT_SECONDS
        while True:
            value = ready()
            if value:
                return value
            if self.parent.poll() is not None:
                raise RuntimeError("tessel --fastcgi ended:\n" + self.log())
            if time.monotonic() > deadline:
                raise RuntimeError("tessel --fastcgi did not get ready:\n" + self.log())
            time.sleep(0.01)

    def request(self, params, body=b""):
        """(stdout, stderr, appStatus) of one request."""
        return fcgi_client.request(self.socket, params, body)

    def children(self):
        path = f"/proc/{self.parent.pid}/task/{self.parent.pid}/children"
        with open(path) as f:
            pids = [int(p) for p in f.read().split()]
        return [p for p in pids if state(p) not in ("Z", None)]

    def pid(self, wait=True):
        """The worker's process id, once there is exactly one live worker."""
        def one():
            pids = self.children()
            return pids[0] if len(pids) == 1 else None
        return self.wait_for(one) if wait else one()

    def replaced(self, old):
        """The new worker's process id once old is gone and another took its place."""
        return self.wait_for(lambda: (lambda p: p if p and p != old else None)(self.pid(False)))

    def stray_output(self):
        """What the parent or the worker wrote on standard output since the last call: a
        response belongs to the request's connection, so anything here went astray."""
        with open(self.stdout_path, "rb") as f:
            f.seek(self.stdout_seen)
            text = f.read()
        self.stdout_seen += len(text)
        return text

    def log(self):
        with open(self.log_path, "rb") as f:
            return f.read().decode("latin-1")

    def stop(self):
        """Stops the parent and its worker; returns what they wrote on standard error."""
        if self.parent.poll() is None:
            self.parent.send_signal(signal.SIGTERM)
            self.parent.wait(timeout=60)
        text = self.log()
        shutil.rmtree(self.scratch, ignore_errors=True)
        return text


def state(pid):
    """The one-letter state of a process (R, S, Z, ...), or None when it is gone."""
    try:
        with open(f"/proc/{pid}/stat") as f:
            return f.read().rsplit(")", 1)[1].split()[0]
    except (OSError, IndexError):
        return None
