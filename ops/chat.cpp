// The chat: visitors join with a nick, post messages and list the room, all kept in files
// under "chat/" in the program's working folder, replaced whole under the chat's flock.
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <strings.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cgi/cookie.h"
#include "core/crypt_library.h"
#include "core/file.h"
#include "core/file_replace.h"
#include "core/log.h"
#include "core/number.h"
#include "core/str.h"
#include "core/table.h"
#include "interp/escape.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/chat_nick.h"
#include "ops/ops.h"
#include "ops/reset.h"

namespace {

// The layout, relative to the working folder (never below the document root, so the server
// cannot hand any of it to a browser).
constexpr const char* CHAT_DIRS[] = {"chat", "chat/admin", "chat/log"};
constexpr const char* USERLIST = "chat/userlist";       // nick TAB ticket TAB last seen TAB admin
constexpr const char* INDEX = "chat/index";             // date TAB time TAB nick TAB text
constexpr const char* PASSWORD = "chat/admin/password"; // one crypt hash
constexpr const char* BANNED = "chat/admin/banned";     // one nick per line
constexpr const char* GUESSES = "chat/admin/guesses";   // address TAB first guess TAB count
constexpr const char* LOG_DIR = "chat/log/";            // one file per day, as INDEX
constexpr const char* LOCK = "chat/.lock";              // never replaced: holds the chat's lock

constexpr const char* MESSAGE_COLUMNS = "date\ttime\tnick\ttext\n";
constexpr const char* COOKIE_NAME = "chat";
constexpr int INDEX_KEEP = 100;   // messages kept in the index (the archive keeps all)
constexpr int CHAT_DEFAULT = 20;  // messages chat[] lists
constexpr int MESSAGE_MAX = 1000; // bytes in one message
constexpr int IDLE_DEFAULT = 300; // seconds after which an idle visitor leaves the list
constexpr int TICKET_BYTES = 16;  // random bytes in a visitor's ticket (hex in the cookie)
// The ticket is for the server alone: no script of a page reads it, and a request another
// site makes the browser send does not carry it, unless the visitor follows a link.
constexpr const char* TICKET_ATTRIBUTES = "; HttpOnly; SameSite=Lax";

// Admin password guesses: each costs a slow hash, so an address (an IPv6 /64) may make
// GUESS_MAX of them in GUESS_WINDOW seconds; then it is refused without hashing until the
// window has passed. GUESS_ADDRESSES addresses at most are counted at once.
constexpr int GUESS_MAX = 5;
constexpr long GUESS_WINDOW = 900;
constexpr int GUESS_ADDRESSES = 1000;

// Posts: a visitor may have RATE_MAX messages of the index within RATE_WINDOW seconds (the
// admin is not counted), and a day's archive holds at most ARCHIVE_DAY_MAX bytes.
constexpr int RATE_MAX = 10;
constexpr long RATE_WINDOW = 60;
constexpr off_t ARCHIVE_DAY_MAX = 4 << 20;

// The ticket given by login in this request, which the request's cookie cannot hold yet.
char* fresh_ticket = nullptr;

// ---- files ------------------------------------------------------------------------------

// The error for op about path, with the system's message for errno. Ownership: new result.
char* chat_file_error(const char* op, const char* path)
{
    str_holder reason(system_error_text());
    return page_error("[%s: cannot use %s: %s]", op, path, reason.get());
}

// The error for a failed write, also written to the error log. Ownership: borrows all, new
// result.
char* chat_write_error(const char* op, const char* path, const char* reason)
{
    return page_error_logged("[%s: cannot use %s: %s]", op, path, reason);
}

// Creates the folders of the layout; null on success, else the error for op.
// Ownership: new result.
char* chat_make_layout(const char* op)
{
    for (const char* dir : CHAT_DIRS)
        if (mkdir(dir, 0775) != 0 && errno != EEXIST)
            return chat_file_error(op, dir);
    return nullptr;
}

// The chat's lock: an exclusive flock on LOCK, held from the read to the write of every
// read-modify-write of a chat file, so that no other request can interleave. The files are
// replaced by a rename, and a lock on a replaced file guards nothing (the next request opens
// the new one), so the lock lives on a file that is never replaced. Holders nest within a
// request: the first takes the lock, the last releases it.
class chat_lock {
public:
    chat_lock()
    {
        if (depth_++ > 0)
            return;
        fd_ = lock_file_open(LOCK);
        if (fd_ < 0)
            error_ = errno;
    }
    ~chat_lock()
    {
        if (--depth_ == 0 && fd_ >= 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    chat_lock(const chat_lock&) = delete;
    chat_lock& operator=(const chat_lock&) = delete;

    // The error for op when the lock could not be taken, else null. Ownership: new result.
    char* error(const char* op) const
    {
        if (!error_)
            return nullptr;
        errno = error_;
        return chat_file_error(op, LOCK);
    }

private:
    static inline int fd_ = -1;
    static inline int depth_ = 0;
    int error_ = 0;
};

// Opens the file at path for writing, creating it with mode when missing, and closes it;
// false, with errno set, when it cannot be opened so.
bool chat_create(const char* path, mode_t mode)
{
    int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, mode);
    if (fd >= 0)
        close(fd);
    return fd >= 0;
}

// Reads the whole file at path into text; a missing file reads as empty. False, with errno
// set, when the file cannot be read. Ownership: new text.
bool chat_read(const char* path, char*& text)
{
    text = nullptr;
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return errno == ENOENT;
    struct stat info;
    bool ok = fstat(fd, &info) == 0;
    if (ok) {
        text = (char*)checked_malloc(info.st_size + 1);
        ssize_t got = info.st_size > 0 ? read(fd, text, info.st_size) : 0;
        ok = got >= 0;
        text[ok ? got : 0] = '\0';
    }
    int saved = errno;
    close(fd);
    errno = saved;
    return ok;
}

// Replaces the file at path by text whole (old content or new, even after a kill or on a
// full disk); null on success, else the error for op, which is also logged.
// Ownership: borrows all, new result.
char* chat_write(const char* op, const char* path, const char* text)
{
    str_holder reason(file_replace(path, str_or_empty(text), str_len0(text)));
    return reason.get() ? chat_write_error(op, path, reason.get()) : nullptr;
}

// The offset just after the last line end of the file open as fd, 0 when it holds none: the
// end of its last whole line. -1 with errno set on a read failure.
off_t chat_whole_lines_end(int fd, off_t size)
{
    char chunk[4096];
    for (off_t end = size; end > 0;) {
        off_t start = end > (off_t)sizeof chunk ? end - (off_t)sizeof chunk : 0;
        ssize_t got = pread(fd, chunk, end - start, start);
        if (got != end - start)
            return got < 0 ? -1 : 0;
        for (ssize_t i = got - 1; i >= 0; i--)
            if (chunk[i] == '\n')
                return start + i + 1;
        end = start;
    }
    return 0;
}

// A day's archive, open for adding lines under the chat lock. Lines are appended, not
// replaced: a line cut short by a kill or a full disk lacks its line end, readers skip it
// (chat_whole_lines), and the next line is written over it.
class chat_archive {
public:
    explicit chat_archive(const char* path)
    {
        fd_ = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        struct stat info;
        if (fd_ >= 0 && fstat(fd_, &info) == 0)
            start_ = chat_whole_lines_end(fd_, info.st_size);
    }
    ~chat_archive()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    chat_archive(const chat_archive&) = delete;
    chat_archive& operator=(const chat_archive&) = delete;

    // Writes line after the last whole line and cuts off anything after it; false, with errno
    // set and the file cut back, on a failure.
    bool append(const char* line)
    {
        if (fd_ < 0 || start_ < 0)
            return false;
        off_t at = start_;
        for (size_t left = strlen(line); left > 0;) {
            ssize_t written = pwrite(fd_, line, left, at);
            if (written < 0 && errno == EINTR)
                continue;
            if (written <= 0) { // the next write after a short one gives the cause
                int saved = written == 0 ? EIO : errno;
                undo();
                errno = saved;
                return false;
            }
            line += written;
            left -= (size_t)written;
            at += written;
        }
        return ftruncate(fd_, at) == 0;
    }
    // Takes the appended line back.
    void undo() const { [[maybe_unused]] int ignored = ftruncate(fd_, start_); }
    // The bytes of its whole lines, -1 when it could not be opened.
    off_t size() const { return fd_ >= 0 ? start_ : -1; }

private:
    int fd_;
    off_t start_ = -1;
};

// Text without an unfinished last line, which an append cut short left. Ownership: takes
// text, new result.
char* chat_whole_lines(char* text)
{
    char* end = text ? strrchr(text, '\n') : nullptr;
    if (text)
        *(end ? end + 1 : text) = '\0';
    return text;
}

// The lines of a file's text, each without its line end. Ownership: takes text.
std::unique_ptr<table> chat_lines(char* text)
{
    return std::make_unique<table>(text);
}

// ---- nicks and visitors -----------------------------------------------------------------

// Seconds of silence after which a visitor is no longer present: CHAT_TIMEOUT (set it in
// .profile), else five minutes.
long chat_idle_limit()
{
    long limit = atol(str_or_empty(getenv("CHAT_TIMEOUT")));
    return limit > 0 ? limit : IDLE_DEFAULT;
}

// The code page nicks are written in: the one of the page sources, else the one of the
// response (form fields then arrive in it unconverted), else none, which reads as UTF-8.
int chat_charset()
{
    return req.source_charset ? req.source_charset : req.output_charset;
}

// Why nick cannot be a nick at all, or null when its form is fine. Ownership: static text.
const char* chat_nick_form_error(const char* nick)
{
    return chat_nick_error(nick, chat_charset());
}

// The folded form of nick, by which nicks are compared (ops/chat_nick.h); null when nick is
// no nick. Ownership: new result.
char* chat_fold(const char* nick)
{
    return chat_nick_fold(nick, chat_charset());
}

// True when nick is a nick whose folded form is folded.
bool chat_same_nick(const char* nick, const char* folded)
{
    str_holder own(chat_fold(nick));
    return own.get() && str_equal(own.get(), folded);
}

// True when the ban list holds a nick that is the same as the one folded to folded.
bool chat_banned(const char* folded)
{
    char* read = nullptr;
    chat_read(BANNED, read);
    str_holder text(read);
    for (char* cursor = text.get(); cursor;)
        if (chat_same_nick(str_take_token(cursor, '\n'), folded))
            return true;
    return false;
}

// The visitor's ticket: the one login gave in this request, else the "chat" cookie.
// Ownership: new result.
char* chat_visitor_ticket()
{
    return fresh_ticket ? str_dup(fresh_ticket) : cookie_read(COOKIE_NAME);
}

// A new random ticket, 32 hexadecimal digits. Ownership: new result.
char* chat_new_ticket()
{
    unsigned char bytes[TICKET_BYTES];
    if (getentropy(bytes, sizeof bytes) != 0)
        log_fatal("chat: no random bytes for a ticket");
    char hex[2 * TICKET_BYTES + 1];
    for (int i = 0; i < TICKET_BYTES; i++)
        snprintf(hex + 2 * i, 3, "%02x", bytes[i]);
    return str_dup(hex);
}

// The visitors of the user list as rows "nick TAB ticket TAB last seen TAB admin".
class userlist {
public:
    explicit userlist(const char* op) : op_(op)
    {
        error_.reset(lock_.error(op));
        char* text = nullptr;
        if (!error_.get() && !chat_read(USERLIST, text))
            error_.reset(chat_file_error(op, USERLIST));
        if (!error_.get())
            rows_ = chat_lines(text);
    }
    bool ok() const { return !error_.get(); }
    // The error for op when the list could not be read, else null. Ownership: new result.
    char* error() const { return str_dup(error_.get()); }

    int count() const { return rows_ ? rows_->count() : 0; }
    // Moves the list's cursor to row i and gives that row's cell column. Ownership: new
    // result.
    char* seek_cell(int i, int column)
    {
        rows_->set_current(i);
        return rows_->item_by_index(column);
    }
    long seen(int i)
    {
        str_holder seen(seek_cell(i, 2));
        return seen.get() ? atol(seen.get()) : 0;
    }
    // True when row i's nick is the same as the one folded to folded.
    bool is_nick(int i, const char* folded)
    {
        str_holder own(seek_cell(i, 0));
        return chat_same_nick(own.get(), folded);
    }
    bool is_ticket(int i, const char* ticket)
    {
        str_holder own(seek_cell(i, 1));
        return str_nonempty(ticket) && str_equal(own.get(), ticket);
    }
    // The row of the visitor holding ticket, idle or not, or -1.
    int find_ticket(const char* ticket)
    {
        for (int i = 0; i < count(); i++)
            if (is_ticket(i, ticket))
                return i;
        return -1;
    }

    // Drops visitors idle longer than the limit; true when one was dropped.
    bool drop_idle(long now)
    {
        bool dropped = false;
        for (int i = count() - 1; i >= 0; i--)
            if (now - seen(i) > chat_idle_limit()) {
                rows_->remove(i);
                dropped = true;
            }
        return dropped;
    }
    // Drops every row whose nick folds to folded or whose ticket equals ticket.
    void drop(const char* folded, const char* ticket)
    {
        for (int i = count() - 1; i >= 0; i--)
            if ((folded && is_nick(i, folded)) || is_ticket(i, ticket))
                rows_->remove(i);
    }
    void add(const char* nick, const char* ticket, long now, bool admin)
    {
        str_holder row(str_join(nick, "\t", ticket, "\t", fmt_ulong(now).text, "\t",
                                admin ? "1" : "0", nullptr));
        rows_->add_row(row.get());
    }
    // Marks row i as seen now.
    void touch(int i, long now)
    {
        str_holder nick(seek_cell(i, 0)), ticket(seek_cell(i, 1)), admin(seek_cell(i, 3));
        rows_->remove(i);
        str_holder row(str_join(nick.get(), "\t", ticket.get(), "\t", fmt_ulong(now).text, "\t",
                                admin.get(), nullptr));
        rows_->insert_row(i, row.get());
    }
    // Writes the rows back; null on success. Ownership: new result.
    char* save() const
    {
        str_holder text(rows_->serialise());
        return chat_write(op_, USERLIST, text.get());
    }

private:
    chat_lock lock_; // first: taken before the read, released after everything else
    const char* op_;
    str_holder error_;
    std::unique_ptr<table> rows_;
};

// Why the nick folded to folded may not join now (the same nick is held by another visitor
// of the list, or banned), or null. The caller drops the idle visitors first, so that only
// present ones hold a nick. Ownership: static text.
const char* chat_join_error(userlist& users, const char* folded, const char* ticket)
{
    for (int i = 0; i < users.count(); i++)
        if (users.is_nick(i, folded) && !users.is_ticket(i, ticket))
            return "nick is taken";
    return chat_banned(folded) ? "nick is banned" : nullptr;
}

// ---- the admin password -----------------------------------------------------------------

// The hashing library; null, and the log says why, when it cannot be loaded.
const crypt_library* chat_crypt()
{
    const char* why = nullptr;
    const crypt_library* lib = crypt_library_load(&why);
    if (!lib)
        log_line(LOG_ERROR, "chat: %s", why);
    return lib;
}

// True when password hashes to the stored hash. Without the hashing library nothing matches.
bool chat_password_matches(const char* password, const char* stored)
{
    const crypt_library* lib = chat_crypt();
    if (!lib)
        return false;
    struct crypt_data data;
    memset(&data, 0, sizeof data);
    const char* hash = lib->hash(password, stored, &data);
    return hash && hash[0] != '*' && strcmp(hash, stored) == 0;
}

// The stored hash without its line end, null when no password is set. Ownership: new result.
char* chat_stored_hash()
{
    char* text = read_file(PASSWORD, true, false);
    if (text)
        text[strcspn(text, "\n")] = '\0';
    if (!str_nonempty(text)) {
        str_free(text);
        return nullptr;
    }
    return text;
}

// Stores a new salted hash of password; null on success. Ownership: new result.
char* chat_set_password(const char* password)
{
    const crypt_library* lib = chat_crypt();
    char setting[CRYPT_GENSALT_OUTPUT_SIZE];
    struct crypt_data data;
    memset(&data, 0, sizeof data);
    const char* hash = lib && lib->new_setting("$y$", 0, nullptr, 0, setting, sizeof setting)
                           ? lib->hash(password, setting, &data)
                           : nullptr;
    if (!hash || hash[0] == '*')
        return chat_file_error("startup", "crypt");
    // Made first with the mode that keeps others out, which the replacement then keeps.
    if (!chat_create(PASSWORD, 0660))
        return chat_file_error("startup", PASSWORD);
    str_holder line(str_join(hash, "\n", nullptr));
    return chat_write("startup", PASSWORD, line.get());
}

// ---- admin password guesses -------------------------------------------------------------

// The address guesses are counted under: REMOTE_ADDR, or for IPv6 its /64 network, which a
// single subscriber usually holds whole. Ownership: new result.
char* chat_guess_address()
{
    const char* address = req.cgi.remote_addr;
    in6_addr ip6;
    if (!strchr(address, ':') || inet_pton(AF_INET6, address, &ip6) != 1 ||
        IN6_IS_ADDR_V4MAPPED(&ip6))
        return str_dup(str_nonempty(address) ? address : "-");
    memset(ip6.s6_addr + 8, 0, 8);
    char text[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, &ip6, text, sizeof text);
    return str_join(text, "/64", nullptr);
}

// A row of GUESSES: "address TAB time of the first guess TAB guesses since".
struct chat_guess_row {
    explicit chat_guess_row(const char* row) : text(row)
    {
        const char* tab = strchr(row, '\t');
        address_length = tab ? (size_t)(tab - row) : strlen(row);
        char* end = nullptr;
        first = tab ? strtol(tab + 1, &end, 10) : 0;
        count = end && *end == '\t' ? strtol(end + 1, nullptr, 10) : 0;
    }
    bool is(const char* address) const
    {
        return strlen(address) == address_length && strncmp(text, address, address_length) == 0;
    }
    bool expired(long now) const { return now - first >= GUESS_WINDOW; }

    const char* text;
    size_t address_length;
    long first;
    long count;
};

// Counts a guess from address (count) or forgets its guesses (after a right one), dropping
// the rows whose window has passed. A guess is refused, and nothing written, when the address
// has made GUESS_MAX in its window, or is new while GUESS_ADDRESSES others are counted. The count
// is written before the slow check, so guesses sent at once are all counted. Null on success, else
// the error. Ownership: new result.
char* chat_count_guess(const char* address, bool count, long now)
{
    chat_lock lock;
    if (char* error = lock.error("login"))
        return error;
    char* old = nullptr;
    if (!chat_read(GUESSES, old))
        return chat_file_error("login", GUESSES);
    auto rows = chat_lines(old);
    int before = rows->count();
    long first = now, made = 0;
    for (int i = rows->count() - 1; i >= 0; i--) {
        chat_guess_row row(rows->row(i));
        if (row.is(address) && !row.expired(now)) {
            first = row.first;
            made = row.count;
        }
        if (row.is(address) || row.expired(now))
            rows->remove(i);
    }
    if (count && (made >= GUESS_MAX || (made == 0 && rows->count() >= GUESS_ADDRESSES)))
        return page_error("[login: too many wrong admin passwords; try again later]");
    if (count) {
        str_holder row(str_join(address, "\t", fmt_ulong(first).text, "\t",
                                fmt_ulong(made + 1).text, nullptr));
        rows->add_row(row.get());
    }
    if (!count && rows->count() == before)
        return nullptr;
    if (!chat_create(GUESSES, 0660)) // addresses are kept from other users of the machine
        return chat_file_error("login", GUESSES);
    str_holder text(rows->serialise());
    return chat_write("login", GUESSES, text.get());
}

// ---- messages ---------------------------------------------------------------------------

// The text as one table cell: tabs and line breaks become blanks, blanks at both ends go.
// Ownership: borrows text, new result.
char* chat_one_line(const char* text)
{
    str_holder line(str_dup(text));
    for (char* p = line.get(); p && *p; p++)
        if (*p == '\t' || *p == '\n' || *p == '\r')
            *p = ' ';
    char* start = line.get() ? line.get() + strspn(line.get(), " ") : nullptr;
    int length = str_len0(start);
    while (length > 0 && start[length - 1] == ' ')
        length--;
    return length > 0 ? str_dup_n(start, length) : nullptr;
}

// The local time when written in format: "%Y-%m-%d", "%H:%M:%S". Ownership: static buffer.
const char* chat_time(time_t when, const char* format)
{
    static char buffer[32];
    struct tm local;
    localtime_r(&when, &local);
    strftime(buffer, sizeof buffer, format, &local);
    return buffer;
}

// The column line (if any) and the last n rows. Ownership: new result.
char* chat_last_rows(const table& rows, const char* columns, int n)
{
    str_builder out;
    out.append(columns);
    for (int i = int_max(0, rows.count() - n); i < rows.count(); i++) {
        out.append(rows.row(i));
        out.append('\n');
    }
    return out.take(false);
}

// The column line (if any) and the last n lines of text. Ownership: takes text, new result.
char* chat_last_lines(char* text, const char* columns, int n)
{
    return chat_last_rows(*chat_lines(text), columns, n);
}

// True when the index's rows hold RATE_MAX messages of the nick folded to folded posted since
// now less RATE_WINDOW. Rows start "date TAB time TAB nick", which compare as times do.
bool chat_too_fast(const table& index, const char* folded, time_t now)
{
    str_holder since(str_dup(chat_time(now - RATE_WINDOW, "%Y-%m-%d\t%H:%M:%S")));
    size_t stamp = strlen(since.get());
    int recent = 0;
    for (int i = 0; i < index.count(); i++) {
        const char* row = index.row(i);
        if (strlen(row) <= stamp || strncmp(row, since.get(), stamp) < 0)
            continue;
        const char* nick = row + stamp + 1;
        str_holder own(str_dup_n(nick, strcspn(nick, "\t")));
        recent += chat_same_nick(own.get(), folded);
    }
    return recent >= RATE_MAX;
}

// Adds a message line to the day's archive and to the index (keeping its newest INDEX_KEEP
// lines); null on success. When the index cannot be written the archive's line is taken back,
// so a failed post (a full disk) is in neither. Refused when the visitor posts too fast (the
// admin never does) or the day's archive is full. Ownership: new result.
char* chat_post(const char* nick, const char* text, bool admin)
{
    time_t now = time(nullptr);
    str_holder day(str_dup(chat_time(now, "%Y-%m-%d")));
    str_holder line(str_join(day.get(), "\t", chat_time(now, "%H:%M:%S"), "\t", nick, "\t", text,
                             "\n", nullptr));
    chat_lock lock;
    if (char* error = lock.error("message"))
        return error;
    char* old = nullptr;
    if (!chat_read(INDEX, old))
        return chat_file_error("message", INDEX);
    auto index = chat_lines(old);
    str_holder folded(chat_fold(nick));
    if (!admin && folded.get() && chat_too_fast(*index, folded.get(), now))
        return page_error("[message: at most 10 messages a minute]");
    str_holder kept(chat_last_rows(*index, nullptr, INDEX_KEEP - 1));
    str_append(kept.ref(), line.get());
    str_holder archive_name(str_join(LOG_DIR, day.get(), nullptr));
    chat_archive archive(archive_name.get());
    if (archive.size() + (off_t)strlen(line.get()) > ARCHIVE_DAY_MAX)
        return page_error("[message: today's archive is full]");
    if (!archive.append(line.get())) {
        str_holder reason(system_error_text());
        return chat_write_error("message", archive_name.get(), reason.get());
    }
    char* error = chat_write("message", INDEX, kept.get());
    if (error)
        archive.undo();
    return error;
}

// Adds nick to the ban list (ban) or takes every nick the same as it off; null on success.
// Ownership: new result.
char* chat_edit_bans(const char* nick, const char* folded, bool ban)
{
    chat_lock lock;
    if (char* error = lock.error("message"))
        return error;
    char* old = nullptr;
    if (!chat_read(BANNED, old))
        return chat_file_error("message", BANNED);
    auto rows = chat_lines(old);
    for (int i = rows->count() - 1; i >= 0; i--)
        if (chat_same_nick(rows->row(i), folded))
            rows->remove(i);
    if (ban)
        rows->add_row(nick);
    str_holder text(rows->serialise());
    return chat_write("message", BANNED, text.get());
}

// Bans nick (ban) or lifts its ban; null on success. A banned visitor who is
// present leaves the room at once. Ownership: new result.
char* chat_ban(const char* nick, bool ban)
{
    str_holder folded(chat_fold(nick));
    if (!folded.get()) {
        str_holder shown(escape_take(str_dup(nick)));
        return page_error("[message: no such nick %s]", str_or_empty(shown.get()));
    }
    if (char* error = chat_edit_bans(nick, folded.get(), ban))
        return error;
    if (!ban)
        return nullptr;
    userlist users("message");
    if (char* error = users.error())
        return error;
    users.drop(folded.get(), nullptr);
    return users.save();
}

// The admin commands "/ban NICK", "/unban NICK" and "/clear". Ownership: new result.
char* chat_command(const char* text)
{
    if (str_starts_with(text, "/ban "))
        return chat_ban(text + 5, true);
    if (str_starts_with(text, "/unban "))
        return chat_ban(text + 7, false);
    chat_lock lock; // a post in progress must not write back what /clear removed
    char* error = lock.error("message");
    return error ? error : chat_write("message", INDEX, nullptr);
}

bool chat_is_command(const char* text)
{
    return str_starts_with(text, "/ban ") || str_starts_with(text, "/unban ") ||
           str_equal(text, "/clear");
}

// ---- tables -----------------------------------------------------------------------------

// Stores a table_named from text under the current name. Ownership: takes text.
void chat_store(char* text)
{
    request_store_table(std::make_unique<table_named>(text));
}

// True for a day written "YYYY-MM-DD": the only names the archive holds.
bool chat_is_day(const char* day)
{
    static constexpr char SHAPE[] = "0000-00-00";
    if (str_len0(day) != (int)strlen(SHAPE))
        return false;
    for (int i = 0; SHAPE[i]; i++)
        if (SHAPE[i] == '-' ? day[i] != '-' : day[i] < '0' || day[i] > '9')
            return false;
    return true;
}

// The archived days, newest first, as a table text with the column "day".
// Ownership: new result.
char* chat_archive_days()
{
    table days;
    dir_walk walk(LOG_DIR);
    while (walk.is_open() && walk.next())
        if (chat_is_day(walk.name()))
            days.add_row(walk.name());
    char** slots = days.row_slots();
    std::sort(slots, slots + days.count(),
              [](const char* a, const char* b) { return strcmp(a, b) > 0; });
    str_holder rows(days.serialise());
    return str_join("day\n", rows.get(), nullptr);
}

// ---- handlers ---------------------------------------------------------------------------

// startup[] creates the folders and files; startup[password] also sets the admin password.
char* op_startup(int count, char** params)
{
    if (char* error = chat_make_layout("startup"))
        return error;
    for (const char* path : {USERLIST, INDEX, BANNED})
        if (!chat_create(path, 0666))
            return chat_file_error("startup", path);
    chat_lock lock; // makes the lock file, so that a folder closed later keeps working
    if (char* error = lock.error("startup"))
        return error;
    const char* password = param_text(count, params, 0);
    return str_nonempty(password) ? chat_set_password(password) : nullptr;
}

// validate[nick]: nothing when nick may join, else the reason in brackets.
char* op_validate(int count, char** params)
{
    const char* nick = param_text(count, params, 0);
    if (const char* reason = chat_nick_form_error(nick))
        return page_error("[validate: %s]", reason);
    if (char* error = chat_make_layout("validate"))
        return error;
    userlist users("validate");
    if (char* error = users.error())
        return error;
    str_holder ticket(chat_visitor_ticket()), folded(chat_fold(nick));
    users.drop_idle(time(nullptr));
    const char* reason = chat_join_error(users, folded.get(), ticket.get());
    return reason ? page_error("[validate: %s]", reason) : nullptr;
}

// The nick of the present visitor, escaped; nothing when the visitor is not in the room.
char* chat_own_nick()
{
    userlist users("login");
    str_holder ticket(chat_visitor_ticket());
    int row = users.ok() ? users.find_ticket(ticket.get()) : -1;
    if (row < 0 || time(nullptr) - users.seen(row) > chat_idle_limit())
        return nullptr;
    return escape_take(users.seek_cell(row, 0));
}

// True when password proves the admin; logs a wrong one. A refusal sets error. The guess is
// counted for the visitor's address first, and one over the limit is refused unhashed.
bool chat_admin_proven(const char* nick, const char* password, char*& error)
{
    str_holder stored(chat_stored_hash());
    if (!stored.get()) {
        error = page_error("[login: no admin password is set]");
        return false;
    }
    str_holder address(chat_guess_address());
    long now = time(nullptr);
    if ((error = chat_count_guess(address.get(), true, now)))
        return false;
    if (chat_password_matches(password, stored.get()))
        return !(error = chat_count_guess(address.get(), false, now));
    log_line(LOG_ERROR, "chat: wrong admin password for %s from %s", nick, req.cgi.remote_addr);
    error = page_error("[login: wrong admin password]");
    return false;
}

// Sets the visitor's session cookie to ticket.
void chat_give_ticket(const char* ticket)
{
    str_free(fresh_ticket);
    fresh_ticket = str_dup(ticket);
    cookie_write(COOKIE_NAME, ticket, 0, TICKET_ATTRIBUTES);
}

// login[] gives the visitor's nick; login[nick] joins the room under nick, login[nick;password]
// as the admin.
char* op_login(int count, char** params)
{
    const char* nick = param_text(count, params, 0);
    const char* password = param_text(count, params, 1);
    if (!str_nonempty(nick))
        return chat_own_nick();
    if (const char* reason = chat_nick_form_error(nick))
        return page_error("[login: %s]", reason);
    char* error = nullptr;
    if (str_nonempty(password) && !chat_admin_proven(nick, password, error))
        return error;
    if ((error = chat_make_layout("login")))
        return error;
    userlist users("login");
    if ((error = users.error()))
        return error;
    str_holder old_ticket(chat_visitor_ticket()), folded(chat_fold(nick));
    users.drop_idle(time(nullptr));
    if (const char* reason = chat_join_error(users, folded.get(), old_ticket.get()))
        return page_error("[login: %s]", reason);
    str_holder ticket(chat_new_ticket());
    users.drop(folded.get(), old_ticket.get());
    users.add(nick, ticket.get(), time(nullptr), str_nonempty(password));
    if ((error = users.save()))
        return error;
    chat_give_ticket(ticket.get());
    return nullptr;
}

// The row of the visitor asking, marked as seen now, after dropping the idle ones; -1 when
// the visitor is not in the room. Sets error when the list cannot be written back.
int chat_present_visitor(userlist& users, char*& error)
{
    str_holder ticket(chat_visitor_ticket());
    long now = time(nullptr);
    bool changed = users.drop_idle(now);
    int row = users.find_ticket(ticket.get());
    if (row >= 0 && users.seen(row) != now) {
        users.touch(row, now);
        changed = true;
    }
    if (changed)
        error = users.save();
    return row;
}

// Finds the present visitor for op and marks them seen: nick (null when the visitor is not
// in the room) and admin. With leave set, the visitor leaves the room. Null on success, else
// the error. The user list's lock is released on return. Ownership: new result and nick.
char* chat_visitor(const char* op, bool leave, str_holder& nick, bool& admin)
{
    userlist users(op);
    char* error = users.error();
    int row = error ? -1 : chat_present_visitor(users, error);
    if (error || row < 0)
        return error;
    nick.reset(users.seek_cell(row, 0));
    admin = str_equal(str_holder(users.seek_cell(row, 3)).get(), "1");
    if (!leave)
        return nullptr;
    users.drop(nullptr, str_holder(users.seek_cell(row, 1)).get());
    return users.save();
}

// The authority ("host" or "host:port") of the absolute address url ("scheme://authority/..."),
// or null when it has none ("null", the Origin of a sandboxed page). Ownership: new result.
char* chat_url_authority(const char* url)
{
    const char* start = str_find(url, "://");
    if (!start)
        return nullptr;
    start += 3;
    return str_dup_n(start, strcspn(start, "/?#"));
}

// True when authority names this server: the Host the browser asked, or the server's name
// with or without its port; ASCII case aside.
bool chat_own_authority(const char* authority)
{
    if (!str_nonempty(authority))
        return false;
    const char* host = getenv("HTTP_HOST");
    const char* name = req.cgi.server_name;
    str_holder name_port(str_join(name, ":", req.cgi.server_port, nullptr));
    return (str_nonempty(host) && strcasecmp(authority, host) == 0) ||
           (*name &&
            (strcasecmp(authority, name) == 0 || strcasecmp(authority, name_port.get()) == 0));
}

// True when the request comes from a page of this site, as the browser tells: a Sec-Fetch-Site
// it sends is "same-origin", and its Origin, else its Referer, names this server. A request
// with neither is refused: browsers send Origin with every form post and a Referer with
// nearly every request, while a page of another site can keep both back (a link under the
// policy "no-referrer"), so a forged request can look like exactly that.
bool chat_from_own_site()
{
    const char* fetch_site = getenv("HTTP_SEC_FETCH_SITE");
    if (str_nonempty(fetch_site) && !str_equal(fetch_site, "same-origin"))
        return false;
    const char* origin = getenv("HTTP_ORIGIN");
    str_holder authority(chat_url_authority(str_nonempty(origin) ? origin : req.cgi.http_referer));
    return chat_own_authority(authority.get());
}

// message[text] posts text as the visitor; "/quit" leaves the room, and the admin's "/ban
// NICK", "/unban NICK" and "/clear" rule it.
char* op_message(int count, char** params)
{
    str_holder text(chat_one_line(param_text(count, params, 0)));
    if (!text.get())
        return nullptr;
    if (strlen(text.get()) > (size_t)MESSAGE_MAX)
        return page_error("[message: a message has at most 1000 bytes]");
    if (char* error = chat_make_layout("message"))
        return error;
    bool quit = str_equal(text.get(), "/quit");
    str_holder nick;
    bool admin = false;
    if (char* error = chat_visitor("message", quit, nick, admin))
        return error;
    if (!nick.get())
        return page_error("[message: join the chat first]");
    if (quit)
        return nullptr;
    if (!chat_is_command(text.get()))
        return chat_post(nick.get(), text.get(), admin);
    if (!admin)
        return page_error("[message: only the admin may use /ban, /unban and /clear]");
    if (!chat_from_own_site()) // a page elsewhere must not rule the room with the admin's cookie
        return page_error_logged("[message: an admin command from another site is refused]");
    return chat_command(text.get());
}

// userlist[] leaves the present visitors as the current table (nick, idle, admin, me);
// userlist[banned] leaves the ban list (nick).
char* op_userlist(int count, char** params)
{
    if (char* error = chat_make_layout("userlist"))
        return error;
    if (str_equal(param_text(count, params, 0), "banned")) {
        char* read = nullptr;
        chat_read(BANNED, read);
        str_holder text(read);
        chat_store(str_join("nick\n", text.get(), nullptr));
        return nullptr;
    }
    userlist users("userlist");
    char* error = users.error();
    int me = error ? -1 : chat_present_visitor(users, error);
    if (error)
        return error;
    long now = time(nullptr);
    str_builder out;
    out.append("nick\tidle\tadmin\tme\n");
    for (int i = 0; i < users.count(); i++) {
        str_holder nick(users.seek_cell(i, 0)), admin(users.seek_cell(i, 3));
        str_holder row(str_join(
            nick.get(), "\t", fmt_ulong(now > users.seen(i) ? now - users.seen(i) : 0).text, "\t",
            str_equal(admin.get(), "1") ? "1" : "", "\t", i == me ? "1" : "", "\n", nullptr));
        out.append(row.get());
    }
    chat_store(out.take(false));
    return nullptr;
}

// chat[n] leaves the newest n messages (20 by default, at most 100), oldest first, as the
// current table: date, time, nick, text.
char* op_chat(int count, char** params)
{
    int n = param_int(count, params, 0);
    n = n > 0 ? int_min(n, INDEX_KEEP) : CHAT_DEFAULT;
    if (char* error = chat_make_layout("chat"))
        return error;
    str_holder nick;
    bool admin = false;
    if (char* error = chat_visitor("chat", false, nick, admin))
        return error;
    char* text = nullptr;
    if (!chat_read(INDEX, text))
        return chat_file_error("chat", INDEX);
    chat_store(chat_last_lines(text, MESSAGE_COLUMNS, n));
    return nullptr;
}

// log[] leaves the archived days (day), newest first; log[YYYY-MM-DD] that day's messages.
char* op_log(int count, char** params)
{
    const char* day = param_text(count, params, 0);
    if (!str_nonempty(day)) {
        chat_store(chat_archive_days());
        return nullptr;
    }
    if (!chat_is_day(day)) {
        str_holder shown(escape_take(str_dup(day)));
        return page_error("[log: bad day %s]", str_or_empty(shown.get()));
    }
    str_holder path(str_join(LOG_DIR, day, nullptr));
    str_holder text(chat_whole_lines(read_file(path.get(), true, false)));
    chat_store(str_join(MESSAGE_COLUMNS, text.get(), nullptr));
    return nullptr;
}

} // namespace

// clang-format off
extern constexpr op_row chat_rows[] = {
    // name        handler       params  flags       accepted
    {"log",        op_log,       0,      0,          {1, 1}},
    {"login",      op_login,     0,      0,          {1, 2}},
    {"userlist",   op_userlist,  0,      0,          {1, 1}},
    {"chat",       op_chat,      0,      0,          {1, 1}},
    {"validate",   op_validate,  1,      0},
    {"message",    op_message,   1,      0},
    {"startup",    op_startup,   0,      0,          {1, 1}},
};
// clang-format on

void register_chat_ops()
{
    register_rows(chat_rows);
}

void chat_reset()
{
    str_free(fresh_ticket);
    fresh_ticket = nullptr;
}
