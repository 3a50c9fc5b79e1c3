// GIF templates: `gif_template` recolours polygon areas of a template GIF and writes text on it
// with a bitmap font that is itself a GIF, then sends the picture as the response or saves it
// to a file. Buttons and headings with the site's text are its use.
#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sys/stat.h>
#include <vector>

#include "cgi/response.h"
#include "core/file_replace.h"
#include "core/gd_library.h"
#include "core/image_size.h"
#include "core/log.h"
#include "core/number.h"
#include "core/polygon_fill.h"
#include "core/str.h"
#include "interp/macros.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"
#include "ops/reset.h"

namespace {

// Sent when no picture can be made: a GIF89a of one transparent pixel.
constexpr unsigned char FALLBACK_GIF[] = {
    0x47, 0x49, 0x46, 0x38, 0x39, 0x61, 0x01, 0x00, 0x01, 0x00, 0x80, 0xff, 0x00, 0xc0, 0xc0,
    0xc0, 0x00, 0x00, 0x00, 0x21, 0xf9, 0x04, 0x01, 0x00, 0x00, 0x00, 0x00, 0x2c, 0x00, 0x00,
    0x00, 0x00, 0x01, 0x00, 0x01, 0x00, 0x00, 0x02, 0x02, 0x44, 0x01, 0x00, 0x3b};

// gd makes a canvas of whatever size a GIF's header claims, gigabytes included, so templates
// and fonts beyond these limits are not read at all.
constexpr long MAX_CANVAS_PIXELS = 4096L * 4096;
constexpr size_t MAX_GIF_BYTES = 64L << 20;
// The last byte of every complete GIF. gd makes a picture of a cut-off file as far as it goes;
// such a file is taken as unreadable instead, as a damaged template should be.
constexpr unsigned char GIF_TRAILER = 0x3b;

using file_ptr = std::unique_ptr<FILE, decltype(&fclose)>;

// A picture read by gd, destroyed with its holder; null when it could not be read.
class gif_image {
public:
    gif_image(const gd_library* gd, gdImagePtr image) : gd_(gd), image_(image) {}
    ~gif_image()
    {
        if (image_)
            gd_->destroy(image_);
    }
    gif_image(const gif_image&) = delete;
    gif_image& operator=(const gif_image&) = delete;
    gdImagePtr get() const { return image_; }

private:
    const gd_library* gd_;
    gdImagePtr image_;
};

// The "font" macro, three lines: the font picture's path, the cell height and the blank
// glyph's advance (TAB between), and the glyph string, whose first character is the blank.
// Glyph i fills the cell_height - 1 rows from i * cell_height + 1 of the font picture.
struct gif_font {
    str_holder path; // resolved; null without a "font" macro
    int cell_height = 0;
    int advance = 0;
    int glyph_of[UCHAR_MAX + 1] = {}; // each byte's glyph: its first place in the glyph string
    std::vector<int> widths;          // per glyph, -1 until measured
    gdImagePtr image = nullptr;       // null when the picture cannot be read
};

// The template being drawn on, and the font.
struct gif_canvas {
    const gd_library* gd;
    gdImagePtr image;
    gif_font& font;
};

// True once this request logged that gd cannot be loaded: one line per request.
bool gd_failure_logged = false;

// gd, loaded by the first call of the process that finds it.
const gd_library* gif_gd()
{
    const char* error = nullptr;
    const gd_library* gd = gd_library_load(&error);
    if (!gd && !gd_failure_logged) {
        log_line(LOG_ERROR, "gif_template: %s", error);
        gd_failure_logged = true;
    }
    return gd;
}

// Reads the "font" macro into font; a character not in the glyph string takes the glyph of
// ".", or the blank glyph when "." is missing too.
void gif_font_define(gif_font& font)
{
    const char* body = macro_body("font");
    if (!body)
        return;
    str_holder copy(str_dup(body));
    char* cursor = copy.get();
    font.path.reset(resolve_path(str_next_field(cursor, '\n')));
    char* metrics = str_next_field(cursor, '\n');
    const char* glyphs = str_next_field(cursor, '\n');
    char* advance = str_cut_at(metrics, '\t');
    font.cell_height = str_to_int(metrics);
    font.advance = str_to_int(advance);
    int count = str_len0(glyphs);
    const char* dot = glyphs ? strchr(glyphs, '.') : nullptr;
    std::fill(std::begin(font.glyph_of), std::end(font.glyph_of), dot ? (int)(dot - glyphs) : 0);
    for (int i = count - 1; i >= 0; i--)
        font.glyph_of[(unsigned char)glyphs[i]] = i;
    font.widths.assign(count, -1);
}

// The GIF in the file at path as a gd picture; null when the file is missing, too large, cut
// off or no GIF. Ownership: borrows path, new result (for gd->destroy).
gdImagePtr gif_read(const gd_library* gd, const char* path)
{
    file_ptr file(path ? fopen(path, "rb") : nullptr, &fclose);
    struct stat info;
    if (!file || fstat(fileno(file.get()), &info) != 0 || !S_ISREG(info.st_mode) ||
        (size_t)info.st_size > MAX_GIF_BYTES)
        return nullptr;
    std::vector<unsigned char> bytes(info.st_size);
    size_t size = fread(bytes.data(), 1, bytes.size(), file.get());
    int width = 0, height = 0;
    if (!image_gif_header_size(bytes.data(), size, width, height) ||
        bytes[size - 1] != GIF_TRAILER || (long)width * height > MAX_CANVAS_PIXELS)
        return nullptr;
    return gd->create_from_gif((int)size, bytes.data());
}

// Writes the picture as a GIF, or the fallback picture when there is none or gd cannot
// encode it.
void gif_write(const gd_library* gd, gdImagePtr image, FILE* out)
{
    int size = 0;
    void* bytes = image ? gd->gif_bytes(image, &size) : nullptr;
    if (!bytes) {
        fwrite(FALLBACK_GIF, 1, sizeof FALLBACK_GIF, out);
        return;
    }
    fwrite(bytes, 1, size, out);
    gd->free_bytes(bytes);
}

// Six hexadecimal digits, two each for red, green and blue; false for anything else.
bool gif_parse_color(const char* text, int (&rgb)[3])
{
    for (int i = 0; i < 6; i++)
        if (!text || !isxdigit((unsigned char)text[i]))
            return false;
    for (int i = 0; i < 3; i++)
        rgb[i] = 16 * str_hex_digit(text[2 * i]) + str_hex_digit(text[2 * i + 1]);
    return true;
}

// Corners from "x1,y1,x2,y2,..."; an odd trailing number is dropped. Ownership: borrows text.
std::vector<polygon_point> gif_corners(char* text)
{
    std::vector<polygon_point> corners;
    while (text) {
        const char* x = str_take_token(text, ',');
        if (!text)
            break;
        const char* y = str_take_token(text, ',');
        corners.push_back({str_to_int(x), str_to_int(y)});
    }
    return corners;
}

// "replace_color", old, new, corners: inside the polygon every pixel of the old colour takes
// the new one. The old colour is its exact palette entry, or entry 0 when there is none; the
// new one is found or allocated. False when a colour is unreadable or the palette is full.
bool gif_replace_color(const gif_canvas& c, char* fields)
{
    int old_rgb[3], new_rgb[3];
    if (!gif_parse_color(str_take_token(fields, '\t'), old_rgb) ||
        !gif_parse_color(str_take_token(fields, '\t'), new_rgb))
        return false;
    const gd_library* gd = c.gd;
    int old_color = std::max(gd->color_exact(c.image, old_rgb[0], old_rgb[1], old_rgb[2]), 0);
    int new_color = gd->color_exact(c.image, new_rgb[0], new_rgb[1], new_rgb[2]);
    if (new_color < 0)
        new_color = gd->color_allocate(c.image, new_rgb[0], new_rgb[1], new_rgb[2]);
    if (new_color < 0)
        return false;
    polygon_fill_spans(gif_corners(fields), gdImageSX(c.image), gdImageSY(c.image),
                       [&](int y, int from, int to) {
                           for (int x = from; x <= to; x++)
                               if (gd->get_pixel(c.image, x, y) == old_color)
                                   gd->set_pixel(c.image, x, y, new_color);
                       });
    return true;
}

// The rows of a glyph's cell that lie inside the font picture: [top, top + count).
void gif_glyph_rows(const gif_font& font, int glyph, int& top, int& count)
{
    long long first = (long long)glyph * font.cell_height + 1;
    long long end = std::min<long long>(first + font.cell_height - 1, gdImageSY(font.image));
    top = (int)std::clamp<long long>(first, 0, INT_MAX);
    count = (int)std::max<long long>(end - first, 0);
}

// The glyph's width: the rightmost column (down to 1) with a pixel other than the font's
// transparent colour, plus 2 for a column of spacing; 0 for an empty glyph. The blank glyph
// always has the configured advance.
int gif_glyph_width(const gif_canvas& c, int glyph)
{
    gif_font& font = c.font;
    if (glyph == 0)
        return font.advance;
    int& width = font.widths[glyph];
    if (width >= 0)
        return width;
    int top, rows, transparent = gdImageGetTransparent(font.image);
    gif_glyph_rows(font, glyph, top, rows);
    width = 0;
    for (int x = gdImageSX(font.image) - 1; x >= 1 && width == 0; x--)
        for (int y = top; y < top + rows; y++)
            if (c.gd->get_pixel(font.image, x, y) != transparent) {
                width = x + 2;
                break;
            }
    return width;
}

// Copies the glyph onto the template with its top left corner at (x, y), where any of it
// would show; the spacing column beyond the font picture's edge is not copied.
void gif_copy_glyph(const gif_canvas& c, int glyph, int width, long long x, int y)
{
    int top, rows;
    gif_glyph_rows(c.font, glyph, top, rows);
    width = std::min(width, gdImageSX(c.font.image));
    if (width <= 0 || rows <= 0 || x >= gdImageSX(c.image) || x + width <= 0 ||
        y >= gdImageSY(c.image) || (long long)y + rows <= 0)
        return;
    c.gd->copy(c.image, c.font.image, (int)x, y, 0, top, width, rows);
}

// advance, x, y, text: draws the text from (x, y); each glyph moves x on by the advance when
// it is not 0, else by its own width. False without a font picture.
bool gif_draw_text(const gif_canvas& c, const char* advance_text, char* fields)
{
    if (!c.font.image)
        return false;
    int advance = str_to_int(advance_text);
    long long x = str_to_int(str_take_token(fields, '\t'));
    int y = str_to_int(str_take_token(fields, '\t'));
    for (const char* p = str_or_empty(fields); *p; p++) {
        int glyph = c.font.glyph_of[(unsigned char)*p];
        int width = gif_glyph_width(c, glyph);
        if (glyph != 0)
            gif_copy_glyph(c, glyph, width, x, y);
        x += advance ? advance : width;
    }
    return true;
}

// Runs the command lines in order; false at the first that fails. Empty lines are skipped.
bool gif_run_commands(const gif_canvas& c, const char* commands)
{
    str_holder copy(str_dup(commands));
    for (char* cursor = copy.get(); cursor;) {
        char* fields = str_take_token(cursor, '\n');
        if (!*fields)
            continue;
        char* first = str_take_token(fields, '\t');
        bool done = strcmp(first, "replace_color") == 0 ? gif_replace_color(c, fields)
                                                        : gif_draw_text(c, first, fields);
        if (!done)
            return false;
    }
    return true;
}

// Draws the commands on the template and writes the picture, or the fallback picture when the
// template cannot be read, gd is missing or a command fails.
void gif_render(const char* template_path, const char* commands, gif_font& font, FILE* out)
{
    const gd_library* gd = gif_gd();
    if (!gd) {
        gif_write(nullptr, nullptr, out);
        return;
    }
    gif_image font_image(gd, gif_read(gd, font.path.get()));
    gif_image picture(gd, gif_read(gd, template_path));
    font.image = font_image.get();
    gif_canvas canvas{gd, picture.get(), font};
    bool drawn = picture.get() && gif_run_commands(canvas, commands);
    gif_write(gd, drawn ? picture.get() : nullptr, out);
}

// Draws the picture into memory and replaces the file at path with it whole, so a picture
// being written is never served cut short. The cause of a failure goes to the error log.
char* gif_render_to_file(const char* template_path, const char* commands, gif_font& font,
                         const char* path)
{
    char* data = nullptr;
    size_t size = 0;
    FILE* memory = open_memstream(&data, &size);
    if (!memory)
        return page_error("[gif_template: write error]");
    gif_render(template_path, commands, font, memory);
    fclose(memory);
    str_holder error(file_replace(path, data, size));
    free(data);
    if (!error.get())
        return nullptr;
    log_line(LOG_ERROR, "gif_template: write to '%s' failed: %s", path, error.get());
    return page_error("[gif_template: write error]");
}

char* op_gif_template(int count, char** params)
{
    gif_font font;
    gif_font_define(font);
    str_holder template_path(resolve_path(param_text(count, params, 0)));
    const char* commands = param_text(count, params, 1);
    if (count >= 3) {
        str_holder path(resolve_path(params[2]));
        return gif_render_to_file(template_path.get(), commands, font, path.get());
    }
    response_header("Content-type", "image/gif");
    response_end_header();
    gif_render(template_path.get(), commands, font, response_stream());
    fflush(response_stream());
    req.output_enabled = false; // the picture is the whole response
    return nullptr;
}

} // namespace

// clang-format off
extern constexpr op_row gif_template_rows[] = {
    // name           handler           params  flags       accepted
    {"gif_template",  op_gif_template,  0,      0,          {1, 3}},
};
// clang-format on

void register_gif_template_ops()
{
    register_rows(gif_template_rows);
}

void gif_template_reset()
{
    gd_failure_logged = false;
}
