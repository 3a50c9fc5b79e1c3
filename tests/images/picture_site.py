"""A scratch site for the picture tests: pictures drawn from text, pages run through the program.

Pictures are made and decoded with PIL, independently of the library the program uses.
"""
import io
import os
import re
import subprocess
import sys
import tempfile
import unittest

from PIL import Image

PROGRAM = None  # the program under test: set by main() from the command line
LOG_PREFIX = re.compile(r"^\[\d\d/\w{3}/\d{4} \d\d:\d\d:\d\d\] ")


def paletted(rows, colors, transparent=None):
    """A palette picture from text rows, one character per pixel; colors maps each character
    to (palette index, (r, g, b))."""
    image = Image.new("P", (len(rows[0]), len(rows)))
    palette = [0] * 768
    for index, rgb in colors.values():
        palette[3 * index:3 * index + 3] = rgb
    image.putpalette(palette)
    image.putdata([colors[c][0] for row in rows for c in row])
    out = io.BytesIO()
    extra = {} if transparent is None else {"transparency": transparent}
    image.save(out, "GIF", **extra)
    return out.getvalue()


def as_rows(gif, names):
    """Decodes a GIF and writes each pixel as the character names gives its colour ("?" for
    others)."""
    image = Image.open(io.BytesIO(gif))
    image.load()
    rgb = image.convert("RGB")
    return ["".join(names.get(rgb.getpixel((x, y)), "?") for x in range(image.width))
            for y in range(image.height)]


class Site:
    """A temporary document root holding files and pages."""

    def __init__(self):
        self._dir = tempfile.TemporaryDirectory(prefix="tessel-images-")
        self.root = self._dir.name

    def close(self):
        self._dir.cleanup()

    def path(self, name):
        return os.path.join(self.root, name)

    def write(self, name, data):
        with open(self.path(name), "wb") as f:
            f.write(data.encode("latin-1") if isinstance(data, str) else data)

    def read(self, name):
        with open(self.path(name), "rb") as f:
            return f.read()

    def run(self, page, env=None):
        """Runs page.html with the given text and a final line end, as an editor writes it;
        returns (header, body) of the response."""
        self.write("page.html", page + "\n")
        full_env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "DOCUMENT_ROOT": self.root,
                    "SCRIPT_NAME": "/cgi-bin/tessel", "REQUEST_METHOD": "GET", "TZ": "UTC",
                    "REQUEST_URI": "/page.html", "PATH_TRANSLATED": self.path("page.html")}
        full_env.update(env or {})
        result = subprocess.run([PROGRAM], capture_output=True, cwd=self.root, env=full_env,
                                timeout=60, check=True)
        header, _, body = result.stdout.partition(b"\n\n")
        return header.decode("latin-1"), body

    def error_log(self):
        if not os.path.exists(self.path("error_log")):
            return []
        text = self.read("error_log").decode("latin-1")
        return [LOG_PREFIX.sub("", line) for line in text.splitlines()]


class SiteTest(unittest.TestCase):
    """A test case with a fresh site per test."""

    def setUp(self):
        self.site = Site()
        self.addCleanup(self.site.close)


def main():
    global PROGRAM
    PROGRAM = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)
