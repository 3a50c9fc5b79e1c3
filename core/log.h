// The access and error logs and the fatal log line (exit 254): the log primitive every layer
// can reach.
//
// Lines start with the local time and the page path. Where the lines go and which page path
// they carry is bound once by the request state above (log_bind); until then lines go to
// standard error with "[path=null]".
#ifndef TESSEL_CORE_LOG_H
#define TESSEL_CORE_LOG_H

constexpr int LOG_ACCESS = 0;
constexpr int LOG_ERROR = 1;

// Binds the logs to the request state: page_path points at the page path written on every
// line (a null path is written "[path=null]"), files at the two log file names, access log
// first (a null name writes to standard error). Both are read at each line, so later
// changes to them take effect. Ownership: borrows both for the life of the process.
void log_bind(char* const* page_path, const char* const* files);

// Appends "[%d/%b/%Y %H:%M:%S] PATH: message\n" to the selected log (standard error when it
// cannot be opened). The line is cut at 1024 bytes.
void log_line(int selector, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Appends the line log_line would write for message to the error log, built by hand with
// async-signal-safe calls only (no formatting, allocation, lock or localtime; the local time
// comes from core/local_time.h): the line a signal handler writes before it ends the process.
void log_signal_line(const char* message);

// Logs the message to the error log and ends the run with status 254, printing nothing:
// exhausted memory and container misuse (core/run.h: a resident worker is replaced). It formats
// into a fixed buffer and never touches the heap.
[[noreturn]] void log_fatal(const char* format, ...) __attribute__((format(printf, 1, 2)));

#endif
