#!/usr/bin/env python3
"""gif_template: pictures decoded by PIL and checked pixel by pixel.

Usage: gif_template_test.py PROGRAM
"""
import random

import picture_site
from picture_site import SiteTest, as_rows, paletted

FALLBACK = bytes.fromhex("4749463839610100010080ff00c0c0c000000021f90401000000002c00000000"
                         "010001000002024401003b")
WHITE, RED, GREEN, BLUE, BLACK, PINK = \
    (255, 255, 255), (255, 0, 0), (0, 255, 0), (0, 0, 255), (0, 0, 0), (255, 0, 255)
NAMES = {WHITE: ".", RED: "r", GREEN: "G", BLUE: "b", BLACK: "#"}
TEMPLATE_COLORS = {".": (0, WHITE), "r": (1, RED), "b": (2, BLUE)}

# Cells of 6 rows: a separator row (its red dot at the right would widen every glyph if it were
# read as part of a glyph), then 5 glyph rows. The glyphs: blank, "A" (3 columns wide: width
# 4), "B" (pixels up to column 4: width 6), "." (column 1: width 3), "C" (column 0 only, which
# the width scan does not look at: width 0).
FONT_ROWS = """\
.......r ........ ........ ........ ........ ........
.......r ###..... #.#..... ###..... #.#..... #.#.....
.......r .####... .#..#... .###.... .#..#... .####...
.......r ........ ........ ........ ........ .#......
.......r #....... #....... #....... #....... #......."""
FONT_COLORS = {".": (0, PINK), "#": (1, BLACK), "r": (2, RED)}


def font_gif():
    rows = [row.split(" ") for row in FONT_ROWS.split("\n")]
    return paletted([cell[i] for cell in rows for i in range(6)], FONT_COLORS, transparent=0)


class GifTemplateTest(SiteTest):
    def setUp(self):
        super().setUp()
        self.site.write("font.gif", font_gif())
        self.use_font(" AB.C")

    def use_font(self, glyphs, path="font.gif", advance=2):
        self.site.write("_macro.cfg", f"@font\n{path}\n6\t{advance}\n{glyphs}\n")

    def draw(self, template_rows, commands, colors=TEMPLATE_COLORS):
        """The template drawn on by the commands, as rows of colour names."""
        self.site.write("t.gif", paletted(template_rows, colors))
        header, body = self.site.run(f"^gif_template[t.gif;{commands}]")
        self.assertEqual(header, "Content-type: image/gif")
        return as_rows(body, NAMES)

    def response(self, commands, template="t.gif"):
        return self.site.run(f"^gif_template[{template};{commands}]page text")

    def test_recolours_inside_convex_and_concave_polygons(self):
        self.assertEqual(self.draw(["rrrrrrr"] * 4, "replace_color\tff0000\t00ff00\t3,0,6,3,0,3"),
                         ["rrrGrrr", "rrGGGrr", "rGGGGGr", "GGGGGGG"])
        # Only red pixels change: the blue column stays. The odd trailing 7 is dropped.
        concave = ["GrrbrrGr", "GGrbrGGr", "GGGbGGGr", "GGGbGGGr", "GGGbGGGr", "GGGbGGGr"]
        for corners in ("0,0,3,3,6,0,6,5,0,5", "0,0,3,3,6,0,6,5,0,5,7"):
            self.assertEqual(self.draw(["rrrbrrrr"] * 6,
                                       f"replace_color\tff0000\t00ff00\t{corners}"), concave)

    def test_colour_lookup_and_allocation(self):
        # An old colour that is not in the palette stands for entry 0 (white here); the new
        # colour blue is found in the palette, green is added to it.
        rows = self.draw(["r..b", "rr.b"], "replace_color\t123456\t0000FF\t0,0,3,0,3,1,0,1\n\n"
                                           "replace_color\tff0000\t00ff00\t0,1,3,1,3,2,0,2")
        self.assertEqual(rows, ["rbbb", "GGbb"])

    def test_text_with_own_widths_and_fixed_advance(self):
        blank = ["." * 20] * 5
        self.assertEqual(self.draw(blank, "0\t1\t0\tAB"), [
            ".###..####..........",
            ".#.#..#..#..........",
            ".###..###...........",
            ".#.#..#..#..........",
            ".#.#..####.........."])
        # A fixed advance; the blank glyph moves on by its configured 2 when the line gives 0.
        self.assertEqual(self.draw(blank, "7\t0\t0\tBA\n0\t12\t0\t A"), [
            ".####..###....###...",
            ".#..#..#.#....#.#...",
            ".###...###....###...",
            ".#..#..#.#....#.#...",
            ".####..#.#....#.#..."])

    def test_missing_glyphs(self):
        blank = ["." * 14] * 5
        # "?" takes the glyph of "."; "C" has width 0, draws nothing and does not move on.
        self.assertEqual(self.draw(blank, "0\t0\t0\tA?CA"), [
            "###....###....", "#.#....#.#....", "###....###....", "#.#....#.#....",
            "#.#..#.#.#...."])
        # Without "." in the glyph string, "?" is blank (advance 2); glyphs past the end of the
        # font picture are empty (G is glyph 7 of 5).
        self.use_font(" ABCDEFGH")
        self.assertEqual(self.draw(["." * 16] * 5, "0\t0\t0\tA?A\n3\t10\t0\tGA")[0],
                         "###...###....###")

    def test_output_to_file(self):
        self.site.write("t.gif", paletted(["rr"], TEMPLATE_COLORS))
        header, body = self.site.run("^gif_template[t.gif;0\t0\t0\tB;out.gif]page text")
        self.assertEqual((header.split("\n")[0], body), ("Content-type: text/html", b"page text\n"))
        self.assertEqual(as_rows(self.site.read("out.gif"), NAMES), ["r#"])
        header, body = self.site.run("^gif_template[t.gif;;nodir/out.gif]page text")
        self.assertEqual(body, b"[gif_template: write error]page text\n")

    def test_fallback_picture(self):
        """Each of these answers with the 43-byte transparent picture and nothing after it."""
        self.site.write("t.gif", paletted(["rrrr"] * 2, TEMPLATE_COLORS))
        self.site.write("text.gif", "GIF89a is how this text begins, but it is no picture;")
        self.site.write("cut.gif", self.site.read("t.gif")[:-1])
        full = {chr(256 + i): (i, (i, i, i)) for i in range(255)}
        full["r"] = (255, RED)
        self.site.write("full.gif", paletted([list(full)], full))
        # A header that claims 60000 by 60000 pixels, followed by a tiny picture.
        self.site.write("huge.gif", b"GIF89a\x60\xea\x60\xea\x80\0\0" + bytes(6) +
                        b",\0\0\0\0\x60\xea\x60\xea\0\x02\x02\x44\x01\0;")
        cases = [("missing.gif", ""), ("text.gif", ""), ("cut.gif", ""), ("huge.gif", ""),
                 ("t.gif", "replace_color\tgg0000\t00ff00\t0,0,1,1"),
                 ("t.gif", "replace_color\tff0000\tff00\t0,0,1,1"),
                 ("full.gif", "replace_color\tff0000\t00ff00\t0,0,1,1"),
                 ("t.gif", "replace_color\tff0000\t00ff00\t0,0,1,1\n0\t0\t0\tA")]
        self.use_font(" AB.C", path="text.gif")
        for template, commands in cases:
            with self.subTest(template=template, commands=commands):
                self.assertEqual(self.response(commands, template),
                                 ("Content-type: image/gif", FALLBACK))
        # Without a font, lines that draw no text still work.
        self.assertEqual(as_rows(self.response("replace_color\tff0000\t00ff00\t0,0,0,1")[1],
                                 NAMES), ["Grrr", "Grrr"])

    def test_damaged_pictures_never_crash(self):
        """Templates and fonts with bytes changed at random (fixed seed) still give a GIF."""
        rng = random.Random(15)
        template = paletted(["r.b." * 4] * 8, TEMPLATE_COLORS)
        font = self.site.read("font.gif")
        commands = "replace_color\tff0000\t00ff00\t0,0,15,0,15,7\n0\t1\t1\tAB.C?"
        for _ in range(40):
            damaged = [bytearray(template), bytearray(font)]
            for picture in damaged:
                for _ in range(3):
                    picture[rng.randrange(6, len(picture) - 1)] = rng.randrange(256)
            self.site.write("t.gif", bytes(damaged[0]))
            self.site.write("font.gif", bytes(damaged[1]))
            header, body = self.response(commands)
            self.assertEqual(header, "Content-type: image/gif")
            self.assertEqual(body[:3], b"GIF")
            as_rows(body, NAMES)  # PIL decodes it

    def test_polygon_far_outside(self):
        far = 2000000000
        commands = f"replace_color\tff0000\t00ff00\t{-far},{-far},{far},{-far},{far},{far}"
        self.assertEqual(self.draw(["rrr", "rrr"], commands), ["GGG", "rGG"])
        commands = f"replace_color\tff0000\t00ff00\t{-far},{far},{far},{far},0,{far - 5}"
        self.assertEqual(self.draw(["rrr", "rrr"], commands), ["rrr", "rrr"])

    def test_gd_missing_gives_fallback_and_one_log_line(self):
        env = {"TESSEL_GD_LIBRARY": "/nonexistent/libgd.so.3"}
        self.site.write("t.gif", paletted(["rr"], TEMPLATE_COLORS))
        # gd is not touched by a page that draws no picture.
        self.assertEqual(self.site.run("^imgsize[t.gif]^item[0]", env)[1], b"2\n")
        self.assertEqual(self.site.error_log(), [])
        page = "^gif_template[t.gif;;a.gif]^gif_template[t.gif;]"
        self.assertEqual(self.site.run(page, env), ("Content-type: image/gif", FALLBACK))
        self.assertEqual(self.site.read("a.gif"), FALLBACK)
        log = self.site.error_log()
        self.assertEqual(len(log), 1)
        self.assertRegex(log[0], r"gif_template: cannot load gd library: .*nonexistent")


if __name__ == "__main__":
    picture_site.main()
