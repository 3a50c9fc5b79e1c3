// Mail: `sendmail` hands a whole message, headers included, to the system's mail program, and
// the attachment builder turns bytes into the uuencoded blocks that messages carry.
#include <csignal>
#include <cstring>
#include <strings.h>
#include <unistd.h>

#include "core/charset.h"
#include "core/log.h"
#include "core/number.h"
#include "core/process.h"
#include "core/str.h"
#include "interp/escape.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/mail.h"
#include "ops/ops.h"

namespace {

constexpr int LINE_BYTES = 45;            // input bytes per uuencoded line
constexpr int REPORT_BUFFER = 1024;       // the mail program's report is read once into this
constexpr int MAIL_CHARSET = CHARSET_KOI; // mail leaves in the database code page

struct attachment_type {
    const char* extension;
    const char* media_type;
};

constexpr attachment_type ATTACHMENT_TYPES[] = {
    {"gif", "image/gif"},       {"jpg", "image/jpeg"},
    {"jpeg", "image/jpeg"},     {"tif", "image/tiff"},
    {"tiff", "image/tiff"},     {"cgm", "image/cgm"},
    {"au", "audio/basic"},      {"mov", "video/quicktime"},
    {"qt", "video/quicktime"},  {"mpeg", "video/mpeg"},
    {"mpg", "video/mpeg"},      {"mp2", "video/mpeg"},
    {"mp3", "video/mpeg"},      {"ps", "application/postscript"},
    {"zip", "application/zip"}, {"doc", "application/msword"},
};

// The media type of a file name's extension; the capitalised default otherwise.
const char* mail_media_type(const char* name)
{
    const char* dot = strrchr(name, '.');
    if (dot)
        for (const attachment_type& type : ATTACHMENT_TYPES)
            if (strcasecmp(dot + 1, type.extension) == 0)
                return type.media_type;
    return "Application/Octet-Stream";
}

// The uuencode character of a 6-bit value: 32 + v, with "`" for 0.
char uu_char(unsigned v)
{
    return v ? static_cast<char>(32 + v) : '`';
}

// One line: the count character, four characters per 3 bytes ("`" filling a short group),
// then a line feed. Requires: 1 <= n <= LINE_BYTES.
void mail_encode_line(str_builder& out, const unsigned char* p, int n)
{
    out.append(uu_char(n));
    for (; n >= 3; p += 3, n -= 3) {
        char group[4] = {uu_char(p[0] >> 2), uu_char((p[0] & 3) << 4 | p[1] >> 4),
                         uu_char((p[1] & 15) << 2 | p[2] >> 6), uu_char(p[2] & 63)};
        out.append(group, 4);
    }
    if (n == 2) {
        char group[4] = {uu_char(p[0] >> 2), uu_char((p[0] & 3) << 4 | p[1] >> 4),
                         uu_char((p[1] & 15) << 2), '`'};
        out.append(group, 4);
    } else if (n == 1) {
        char group[4] = {uu_char(p[0] >> 2), uu_char((p[0] & 3) << 4), '`', '`'};
        out.append(group, 4);
    }
    out.append('\n');
}

// Writes all of text to fd; stops early when the reader has gone. A mail program that exits
// without reading must not end this process by SIGPIPE, so the signal is ignored meanwhile.
void mail_write_all(int fd, const char* text, size_t size)
{
    void (*saved)(int) = signal(SIGPIPE, SIG_IGN);
    while (size > 0) {
        ssize_t written = write(fd, text, size);
        if (written <= 0)
            break;
        text += written;
        size -= written;
    }
    signal(SIGPIPE, saved);
}

// One read of the mail program's output into report; true when it printed anything.
bool mail_read_report(int fd, char (&report)[REPORT_BUFFER])
{
    ssize_t got = read(fd, report, REPORT_BUFFER - 1);
    report[got > 0 ? got : 0] = '\0';
    return got > 0;
}

// sendmail[message]: the expanded message, recoded, piped to "sendmail -t". Any output of the
// program counts as failure, whatever its exit code.
char* op_sendmail(int count, char** params)
{
    escape_mode_scope config(ESCAPE_MODE_CONFIG);
    char* message =
        charset_convert(expand_param_text(count, params, 0), req.source_charset, MAIL_CHARSET);
    if (!str_nonempty(message))
        return nullptr;
    const char* program =
        access("/usr/lib/sendmail", X_OK) == 0 ? "/usr/lib/sendmail" : "/usr/sbin/sendmail";
    child_process child;
    if (!spawn_with_pipes(program, "-t", true, true, true, child)) {
        log_line(LOG_ERROR, "sendmail: %s pipe error", program);
        return page_error("[sendmail pipe error]");
    }
    mail_write_all(child.in_fd, message, strlen(message));
    close(child.in_fd);
    char report[REPORT_BUFFER];
    bool reported = mail_read_report(child.out_fd, report);
    close(child.out_fd);
    close(child.err_fd);
    int code = wait_child(child);
    if (code == 0 && !reported)
        return nullptr;
    return page_error("[sendmail reported error: %s, #%d]", reported ? report : "UNKNOWN", code);
}

} // namespace

// clang-format off
extern constexpr op_row mail_rows[] = {
    // name       handler       params  flags
    {"sendmail",  op_sendmail,  1,      RAW_PARAMS},
};
// clang-format on

char* build_attachment(const char* data, int length, const char* name)
{
    if (!data || length < 1)
        return nullptr;
    name = str_or_empty(name);
    str_builder out;
    out.reserve(200 + 2 * strlen(name) + (length + LINE_BYTES - 1) / LINE_BYTES * 62);
    out.append("Content-Type: ");
    out.append(mail_media_type(name));
    out.append("\nContent-Transfer-Encoding: x-uuencode\nContent-Disposition: attachment; "
               "filename=\"");
    out.append(name);
    out.append("\"\n\nbegin 644 ");
    out.append(name);
    out.append('\n');
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(data);
    for (int at = 0; at < length; at += LINE_BYTES)
        mail_encode_line(out, bytes + at, int_min(LINE_BYTES, length - at));
    out.append("`\nend\n");
    return out.take(false);
}

void register_mail_ops()
{
    register_rows(mail_rows);
}
