#!/usr/bin/env python3
"""Runs one SQL page case against the private server started by scripts/mariadb.sh.

Usage: run_sql_page.py <tessel> <case> <server folder>. Before the case goes to
tests/pages/run_page.py these placeholders are filled in everywhere: @DB@ (the connection
string user:password@127.0.0.1:port/database), @DB_PORT@ and @DB_SOCKET@.
"""
import os
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
RUN_PAGE = os.path.join(HERE, "..", "pages", "run_page.py")


def main():
    program, case, server = sys.argv[1], sys.argv[2], os.path.abspath(sys.argv[3])
    with open(os.path.join(server, "port")) as f:
        port = f.read().strip()
    values = {
        "@DB@": f"tessel:tessel-pw@127.0.0.1:{port}/tessel",
        "@DB_PORT@": port,
        "@DB_SOCKET@": os.path.join(server, "mariadbd.sock"),
    }
    with open(case, "rb") as f:
        text = f.read().decode("latin-1")
    for key, value in values.items():
        text = text.replace(key, value)
    with tempfile.NamedTemporaryFile("wb", suffix=".page", delete=False) as f:
        f.write(text.encode("latin-1"))
        filled = f.name
    try:
        result = subprocess.run([sys.executable, RUN_PAGE, program, filled])
    finally:
        os.unlink(filled)
    sys.exit(result.returncode)


if __name__ == "__main__":
    main()
