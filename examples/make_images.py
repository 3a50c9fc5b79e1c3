#!/usr/bin/env python3
"""Makes the pictures of the example site (needs PIL: Debian's python3-pil).

    python3 examples/make_images.py

images/button.gif  the button template: a blue face (3060a0) in a dark frame, 120 by 24.
images/font.gif    a bitmap font for gif_template: white glyphs on a transparent ground, one
                   cell of 12 rows per glyph (a separator row, then 11 rows), in the order of
                   GLYPHS, which the site's "font" macro repeats.
images/photo.jpg   a colour gradient, a picture to size with imgsize.
"""
import os

from PIL import Image, ImageDraw, ImageFont

GLYPHS = " ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.,:!?-()'"
CELL = 12
HERE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "site", "images")


def palette(*colors):
    flat = [value for color in colors for value in color]
    return flat + [0] * (768 - len(flat))


def font():
    source = ImageFont.load_default()  # a fixed 6 by 11 bitmap font
    image = Image.new("P", (8, CELL * len(GLYPHS)), 0)
    image.putpalette(palette((255, 0, 255), (255, 255, 255)))
    draw = ImageDraw.Draw(image)
    for i, glyph in enumerate(GLYPHS[1:], start=1):
        draw.text((0, i * CELL + 1), glyph, fill=1, font=source)
    image.save(os.path.join(HERE, "font.gif"), transparency=0)


def button():
    image = Image.new("P", (120, 24), 0)
    image.putpalette(palette((255, 255, 255), (20, 40, 80), (0x30, 0x60, 0xa0)))
    draw = ImageDraw.Draw(image)
    draw.rounded_rectangle((0, 0, 119, 23), radius=5, fill=2, outline=1)
    image.save(os.path.join(HERE, "button.gif"), transparency=0)


def photo():
    image = Image.new("RGB", (160, 100))
    image.putdata([(x * 255 // 159, y * 255 // 99, 160) for y in range(100) for x in range(160)])
    image.save(os.path.join(HERE, "photo.jpg"), quality=80)


if __name__ == "__main__":
    font()
    button()
    photo()
