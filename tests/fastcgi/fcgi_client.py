#!/usr/bin/env python3
"""A minimal FastCGI client: one responder request over a unix socket.

    stdout, stderr, app_status = request("/path/socket", {"NAME": "value"}, b"body")

The connection carries one request and is closed by the server when the request ends.
"""
import socket
import struct

VERSION = 1
BEGIN_REQUEST, END_REQUEST, PARAMS, STDIN, STDOUT, STDERR = 1, 3, 4, 5, 6, 7
RESPONDER = 1
REQUEST_ID = 1
CHUNK = 65535  # the most content one record holds


def record(kind, content=b""):
    return struct.pack(">BBHHBx", VERSION, kind, REQUEST_ID, len(content), 0) + content


def stream(kind, data):
    """The records of one stream: its data in chunks, then the empty record that ends it."""
    chunks = [data[i:i + CHUNK] for i in range(0, len(data), CHUNK)]
    return b"".join(record(kind, chunk) for chunk in chunks) + record(kind)


def length(n):
    return struct.pack(">B", n) if n < 128 else struct.pack(">I", n | 0x80000000)


def pairs(params):
    out = b""
    for name, value in params.items():
        name = name.encode("latin-1") if isinstance(name, str) else name
        value = value.encode("latin-1") if isinstance(value, str) else value
        out += length(len(name)) + length(len(value)) + name + value
    return out


def read_exactly(sock, size):
    data = b""
    while len(data) < size:
        got = sock.recv(size - len(data))
        if not got:
            raise ConnectionError("the server closed the connection before the request ended")
        data += got
    return data


def request(path, params, body=b"", timeout=60):
    """Sends one request; returns (stdout bytes, stderr bytes, appStatus). Raises
    ConnectionError when the connection ends before the request's end record."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as sock:
        sock.settimeout(timeout)
        sock.connect(path)
        begin = record(BEGIN_REQUEST, struct.pack(">HB5x", RESPONDER, 0))
        sock.sendall(begin + stream(PARAMS, pairs(params)) + stream(STDIN, body))
        out, err = [], []
        while True:
            _, kind, _, size, padding = struct.unpack(">BBHHBx", read_exactly(sock, 8))
            content = read_exactly(sock, size + padding)[:size]
            if kind == STDOUT:
                out.append(content)
            elif kind == STDERR:
                err.append(content)
            elif kind == END_REQUEST:
                return b"".join(out), b"".join(err), struct.unpack(">I", content[:4])[0]
