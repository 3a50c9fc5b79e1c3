// The chat: visitors join with a nick, post messages and list the room, all kept in files
// under "chat/" in the program's working folder, each changed under an exclusive flock.
#include <algorithm>
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
#include "core/log.h"
#include "core/str.h"
#include "core/table.h"
#include "interp/escape.h"
#include "interp/registry.h"
#include "interp/request.h"
#include "ops/ops.h"

namespace {

// The layout, relative to the working folder (never below the document root, so the server
// cannot hand any of it to a browser).
constexpr const char* CHAT_DIRS[] = {"chat", "chat/admin", "chat/log"};
constexpr const char* USERLIST = "chat/userlist";       // nick TAB ticket TAB last seen TAB admin
constexpr const char* INDEX = "chat/index";             // date TAB time TAB nick TAB text
constexpr const char* PASSWORD = "chat/admin/password"; // one crypt hash
constexpr const char* BANNED = "chat/admin/banned";     // one nick per line
constexpr const char* LOG_DIR = "chat/log/";            // one file per day, as INDEX

constexpr const char* MESSAGE_COLUMNS = "date\ttime\tnick\ttext\n";
constexpr const char* COOKIE_NAME = "chat";
constexpr int INDEX_KEEP = 100;   // messages kept in the index (the archive keeps all)
constexpr int CHAT_DEFAULT = 20;  // messages chat[] lists
constexpr int MESSAGE_MAX = 1000; // bytes in one message
constexpr int NICK_MIN = 2;
constexpr int NICK_MAX = 20;
constexpr int IDLE_DEFAULT = 300; // seconds after which an idle visitor leaves the list
constexpr int TICKET_BYTES = 16;  // random bytes in a visitor's ticket (hex in the cookie)

// The ticket given by login in this request, which the request's cookie cannot hold yet.
char* fresh_ticket = nullptr;

// ---- files ------------------------------------------------------------------------------

// "[op: cannot use FILE: reason]" for the failing system call. Ownership: new result.
char* chat_file_error(const char* op, const char* path)
{
    str_holder reason(system_error_text());
    return str_join("[", op, ": cannot use ", path, ": ", reason.get(), "]", nullptr);
}

// The error text with the visitor's input that caused it, escaped, and "]".
// Ownership: borrows both, new result.
char* chat_error_about(const char* error, const char* input)
{
    str_holder shown(escape_take(str_dup(input)));
    return str_join(error, shown.get(), "]", nullptr);
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

// One chat file, open and under an exclusive flock from construction to destruction, for a
// read-modify-write that no other request can interleave. Opening creates a missing file.
class chat_file {
public:
    explicit chat_file(const char* path, int mode = 0666)
    {
        fd_ = open(path, O_RDWR | O_CREAT, mode);
        if (fd_ >= 0)
            flock(fd_, LOCK_EX);
    }
    ~chat_file()
    {
        if (fd_ >= 0) {
            flock(fd_, LOCK_UN);
            close(fd_);
        }
    }
    chat_file(const chat_file&) = delete;
    chat_file& operator=(const chat_file&) = delete;

    bool ok() const { return fd_ >= 0; }

    // The whole content, read under the lock. Ownership: new result.
    char* read_all() const
    {
        struct stat info;
        if (fstat(fd_, &info) != 0)
            return nullptr;
        char* text = (char*)checked_malloc(info.st_size + 1);
        ssize_t got = info.st_size > 0 ? pread(fd_, text, info.st_size, 0) : 0;
        text[got > 0 ? got : 0] = '\0';
        return text;
    }

    // Replaces the content; false on a write failure.
    bool replace(const char* text) const
    {
        size_t size = str_len0(text);
        bool ok = size == 0 || pwrite(fd_, str_or_empty(text), size, 0) == (ssize_t)size;
        return ftruncate(fd_, size) == 0 && ok;
    }

    // Adds text at the end in one write; false on a failure.
    bool append(const char* text) const
    {
        size_t size = str_len0(text);
        return lseek(fd_, 0, SEEK_END) >= 0 && write(fd_, text, size) == (ssize_t)size;
    }

private:
    int fd_;
};

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

// A nick byte: an ASCII letter or digit, "_", "-", ".", or any byte above 127 (the letters
// of the Cyrillic code pages and of UTF-8).
bool chat_nick_byte(unsigned char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-' || c == '.' || c >= 128;
}

// Why nick cannot be a nick at all, or null when its form is fine. Ownership: static text.
const char* chat_nick_form_error(const char* nick)
{
    int length = str_len0(nick);
    if (length < NICK_MIN || length > NICK_MAX)
        return "a nick has 2 to 20 characters";
    for (const char* p = nick; *p; p++)
        if (!chat_nick_byte(*p))
            return "a nick holds only letters, digits, '_', '-' and '.'";
    return nullptr;
}

// True when the file's text lists nick as a line, ASCII case ignored.
bool chat_banned(const char* nick)
{
    chat_file file(BANNED);
    str_holder text(file.ok() ? file.read_all() : nullptr);
    for (char* cursor = text.get(); cursor;) {
        const char* line = str_take_token(cursor, '\n');
        if (*line && strcasecmp(line, nick) == 0)
            return true;
    }
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
        fatal_log("chat: no random bytes for a ticket");
    char hex[2 * TICKET_BYTES + 1];
    for (int i = 0; i < TICKET_BYTES; i++)
        snprintf(hex + 2 * i, 3, "%02x", bytes[i]);
    return str_dup(hex);
}

// The visitors of the user list as rows "nick TAB ticket TAB last seen TAB admin".
class userlist {
public:
    explicit userlist(const char* op) : file_(USERLIST), op_(op)
    {
        if (file_.ok())
            rows_ = chat_lines(file_.read_all());
    }
    bool ok() const { return file_.ok(); }
    // The error for op when the file could not be opened, else null. Ownership: new result.
    char* error() const { return file_.ok() ? nullptr : chat_file_error(op_, USERLIST); }

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
    bool is_nick(int i, const char* nick)
    {
        str_holder own(seek_cell(i, 0));
        return own.get() && strcasecmp(own.get(), nick) == 0;
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
    // Drops every row whose nick equals nick or whose ticket equals ticket.
    void drop(const char* nick, const char* ticket)
    {
        for (int i = count() - 1; i >= 0; i--)
            if ((nick && is_nick(i, nick)) || is_ticket(i, ticket))
                rows_->remove(i);
    }
    void add(const char* nick, const char* ticket, long now, bool admin)
    {
        str_holder row(
            str_join(nick, "\t", ticket, "\t", fmt_ulong(now), "\t", admin ? "1" : "0", nullptr));
        rows_->add_row(row.get());
    }
    // Marks row i as seen now.
    void touch(int i, long now)
    {
        str_holder nick(seek_cell(i, 0)), ticket(seek_cell(i, 1)), admin(seek_cell(i, 3));
        rows_->remove(i);
        str_holder row(str_join(nick.get(), "\t", ticket.get(), "\t", fmt_ulong(now), "\t",
                                admin.get(), nullptr));
        rows_->insert_row(i, row.get());
    }
    // Writes the rows back; null on success. Ownership: new result.
    char* save() const
    {
        str_holder text(rows_->serialise());
        return file_.replace(text.get()) ? nullptr : chat_file_error(op_, USERLIST);
    }

private:
    chat_file file_;
    const char* op_;
    std::unique_ptr<table> rows_;
};

// Why nick may not join now (taken by another visitor of the list, or banned), or null.
// The caller drops the idle visitors first, so that only present ones hold a nick.
// Ownership: static text.
const char* chat_join_error(userlist& users, const char* nick, const char* ticket)
{
    for (int i = 0; i < users.count(); i++)
        if (users.is_nick(i, nick) && !users.is_ticket(i, ticket))
            return "nick is taken";
    return chat_banned(nick) ? "nick is banned" : nullptr;
}

// Why a nick of good form may not join now, as the error of op; null when it may. Drop the
// idle visitors first. Ownership: new result.
char* chat_nick_refusal(const char* op, userlist& users, const char* nick, const char* ticket)
{
    const char* reason = chat_join_error(users, nick, ticket);
    return reason ? str_join("[", op, ": ", reason, "]", nullptr) : nullptr;
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
    char* text = read_file(PASSWORD, true, true);
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
    chat_file file(PASSWORD, 0660);
    str_holder line(str_join(hash, "\n", nullptr));
    if (!file.ok() || !file.replace(line.get()))
        return chat_file_error("startup", PASSWORD);
    return nullptr;
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

// "YYYY-MM-DD" or "HH:MM:SS" of the local time now. Ownership: static buffer.
const char* chat_now(const char* format)
{
    static char buffer[32];
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    strftime(buffer, sizeof buffer, format, &local);
    return buffer;
}

// The column line (if any) and the last n lines of text. Ownership: takes text, new result.
char* chat_last_lines(char* text, const char* columns, int n)
{
    auto rows = chat_lines(text);
    str_builder out;
    out.append(columns);
    for (int i = int_max(0, rows->count() - n); i < rows->count(); i++) {
        out.append(rows->row(i));
        out.append('\n');
    }
    return out.take(false);
}

// Appends a message line to the index (keeping its newest INDEX_KEEP lines) and to the day's
// archive; null on success. Ownership: new result.
char* chat_post(const char* nick, const char* text)
{
    str_holder day(str_dup(chat_now("%Y-%m-%d")));
    str_holder line(
        str_join(day.get(), "\t", chat_now("%H:%M:%S"), "\t", nick, "\t", text, "\n", nullptr));
    chat_file index(INDEX);
    if (!index.ok())
        return chat_file_error("message", INDEX);
    str_holder kept(chat_last_lines(index.read_all(), nullptr, INDEX_KEEP - 1));
    str_append(kept.ref(), line.get());
    if (!index.replace(kept.get()))
        return chat_file_error("message", INDEX);
    str_holder archive_name(str_join(LOG_DIR, day.get(), nullptr));
    chat_file archive(archive_name.get());
    if (!archive.ok() || !archive.append(line.get()))
        return chat_file_error("message", archive_name.get());
    return nullptr;
}

// Adds nick to the ban list (ban) or takes it off; null on success. The list's lock is
// released on return, before anyone takes the user list's. Ownership: new result.
char* chat_edit_bans(const char* nick, bool ban)
{
    chat_file file(BANNED);
    if (!file.ok())
        return chat_file_error("message", BANNED);
    auto rows = chat_lines(file.read_all());
    for (int i = rows->count() - 1; i >= 0; i--)
        if (strcasecmp(rows->row(i), nick) == 0)
            rows->remove(i);
    if (ban)
        rows->add_row(nick);
    str_holder text(rows->serialise());
    return file.replace(text.get()) ? nullptr : chat_file_error("message", BANNED);
}

// Bans nick (ban) or lifts its ban; null on success. A banned visitor who is
// present leaves the room at once. Ownership: new result.
char* chat_ban(const char* nick, bool ban)
{
    if (chat_nick_form_error(nick))
        return chat_error_about("[message: no such nick ", nick);
    if (char* error = chat_edit_bans(nick, ban))
        return error;
    if (!ban)
        return nullptr;
    userlist users("message");
    if (char* error = users.error())
        return error;
    users.drop(nick, nullptr);
    return users.save();
}

// The admin commands "/ban NICK", "/unban NICK" and "/clear". Ownership: new result.
char* chat_command(const char* text)
{
    if (str_starts_with(text, "/ban "))
        return chat_ban(text + 5, true);
    if (str_starts_with(text, "/unban "))
        return chat_ban(text + 7, false);
    chat_file index(INDEX);
    return index.ok() && index.replace(nullptr) ? nullptr : chat_file_error("message", INDEX);
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
    store_current_table(std::make_unique<table_named>(text));
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
    for (const char* path : {USERLIST, INDEX, BANNED}) {
        chat_file file(path);
        if (!file.ok())
            return chat_file_error("startup", path);
    }
    const char* password = param_text(count, params, 0);
    return str_nonempty(password) ? chat_set_password(password) : nullptr;
}

// validate[nick]: nothing when nick may join, else the reason in brackets.
char* op_validate(int count, char** params)
{
    const char* nick = param_text(count, params, 0);
    if (const char* reason = chat_nick_form_error(nick))
        return str_join("[validate: ", reason, "]", nullptr);
    if (char* error = chat_make_layout("validate"))
        return error;
    userlist users("validate");
    if (char* error = users.error())
        return error;
    str_holder ticket(chat_visitor_ticket());
    users.drop_idle(time(nullptr));
    return chat_nick_refusal("validate", users, nick, ticket.get());
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

// True when password proves the admin; logs a wrong one. A refusal sets error.
bool chat_admin_proven(const char* nick, const char* password, char*& error)
{
    str_holder stored(chat_stored_hash());
    if (!stored.get()) {
        error = page_error("[login: no admin password is set]");
        return false;
    }
    if (chat_password_matches(password, stored.get()))
        return true;
    log_line(LOG_ERROR, "chat: wrong admin password for %s from %s", nick, req.cgi.remote_addr);
    error = page_error("[login: wrong admin password]");
    return false;
}

// Sets the visitor's session cookie to ticket.
void chat_give_ticket(const char* ticket)
{
    str_free(fresh_ticket);
    fresh_ticket = str_dup(ticket);
    cookie_write(COOKIE_NAME, ticket, 0);
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
        return str_join("[login: ", reason, "]", nullptr);
    char* error = nullptr;
    if (str_nonempty(password) && !chat_admin_proven(nick, password, error))
        return error;
    if ((error = chat_make_layout("login")))
        return error;
    userlist users("login");
    if ((error = users.error()))
        return error;
    str_holder old_ticket(chat_visitor_ticket());
    users.drop_idle(time(nullptr));
    if ((error = chat_nick_refusal("login", users, nick, old_ticket.get())))
        return error;
    str_holder ticket(chat_new_ticket());
    users.drop(nick, old_ticket.get());
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
        return chat_post(nick.get(), text.get());
    if (!admin)
        return page_error("[message: only the admin may use /ban, /unban and /clear]");
    return chat_command(text.get());
}

// userlist[] leaves the present visitors as the current table (nick, idle, admin, me);
// userlist[banned] leaves the ban list (nick).
char* op_userlist(int count, char** params)
{
    if (char* error = chat_make_layout("userlist"))
        return error;
    if (str_equal(param_text(count, params, 0), "banned")) {
        chat_file file(BANNED);
        str_holder text(file.ok() ? file.read_all() : nullptr);
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
            nick.get(), "\t", fmt_ulong(now > users.seen(i) ? now - users.seen(i) : 0), "\t",
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
    chat_file index(INDEX);
    if (!index.ok())
        return chat_file_error("chat", INDEX);
    chat_store(chat_last_lines(index.read_all(), MESSAGE_COLUMNS, n));
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
    if (!chat_is_day(day))
        return chat_error_about("[log: bad day ", day);
    str_holder path(str_join(LOG_DIR, day, nullptr));
    str_holder text(read_file(path.get(), true, true));
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
