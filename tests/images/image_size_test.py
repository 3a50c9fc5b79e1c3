#!/usr/bin/env python3
"""imgsize, jpegsize and gifsize on GIF and JPEG files made by PIL, and on files cut short.

Usage: image_size_test.py PROGRAM
"""
import io

from PIL import Image

import picture_site
from picture_site import SiteTest

SIZE_PAGE = "^{op}[{name}]^item[0]x^item[1] rows=^item[count]"


def saved(size, kind, **options):
    out = io.BytesIO()
    Image.new("RGB", size, (200, 30, 30)).save(out, kind, **options)
    return out.getvalue()


class ImageSizeTest(SiteTest):
    def size(self, name, op="imgsize"):
        return self.site.run(SIZE_PAGE.format(op=op, name=name))[1].decode().strip()

    def test_gif_and_jpeg_by_extension(self):
        self.site.write("a.gif", saved((640, 480), "GIF"))
        jpeg = saved((300, 200), "JPEG")
        self.site.write("b.JPG", jpeg)
        self.site.write("b.jpeg", jpeg)
        self.assertEqual(self.size("a.gif"), "640x480 rows=1")
        self.assertEqual(self.size("/a.gif", "jpegsize"), "640x480 rows=1")  # from the root
        self.assertEqual(self.size("b.JPG", "gifsize"), "300x200 rows=1")
        self.assertEqual(self.size("b.jpeg"), "0x0 rows=1")

    def test_progressive_and_thumbnail_frames(self):
        self.site.write("p.jpg", saved((321, 123), "JPEG", progressive=True))
        # A thumbnail in an application segment comes before the main frame header.
        thumb = saved((16, 12), "JPEG")
        main = saved((1024, 768), "JPEG")
        segment = b"Exif\0\0" + thumb
        self.site.write("t.jpg", main[:2] + b"\xff\xe1" + (len(segment) + 2).to_bytes(2, "big")
                        + segment + main[2:])
        self.assertEqual(self.size("p.jpg"), "321x123 rows=1")
        self.assertEqual(self.size("t.jpg"), "1024x768 rows=1")

    def test_truncated_and_missing_files_replace_the_table(self):
        jpeg = saved((300, 200), "JPEG")
        frame = jpeg.index(b"\xff\xc0")
        self.site.write("before.jpg", jpeg[:frame])
        self.site.write("inside.jpg", jpeg[:frame + 6])
        self.site.write("short.gif", saved((640, 480), "GIF")[:12])
        for name in ("before.jpg", "inside.jpg", "short.gif", "missing.gif", "", "a.png"):
            with self.subTest(name=name):
                self.assertEqual(self.size(name), "0x0 rows=1")
        page = "^config[old\nrows]^context[s]^config[x]^imgsize[none.gif]^item[0]x^item[1] " \
               "^context[]^item[count]"
        self.assertEqual(self.site.run(page)[1].decode().strip(), "0x0 2")


if __name__ == "__main__":
    picture_site.main()
