// The resource log: one line per expensive request, appended when the process exits.
//
// A request whose CPU time (user plus system) passes the CPU threshold, or else whose memory
// figure (the integral shared text, unshared data and unshared stack sizes of getrusage,
// summed and divided by 1024) passes the memory threshold, appends
// "[%d/%b/%Y %H:%M:%S] UUU.UUs SSS.SSs  TEXT DATA STACK REQUEST_URI" to the file named by the
// path template with its "%s" replaced by SERVER_NAME, of which only letters (lower-cased),
// digits, "." and "-" are kept ("unknown" when nothing is left).
#ifndef TESSEL_OPS_RESOURCE_LOG_H
#define TESSEL_OPS_RESOURCE_LOG_H

// The settings every process runs with.
constexpr const char* RESOURCE_LOG_TEMPLATE = "/tmp/rusage.%s.log";
constexpr double RESOURCE_LOG_CPU_SECONDS = 2.0;
constexpr double RESOURCE_LOG_MEMORY = 1024.0;

// Sets up the log with the fixed settings and arranges for resource_log_finish to run once,
// after every other exit action, however the process exits (also through exit()).
void resource_log_start();

// A resident worker's request: sets up the log with the fixed settings and counts the CPU time
// from now on, so that resource_log_finish, called at the request's end, writes the line for
// this request alone.
void resource_log_request_start();

// Replaces the settings. Ownership: borrows path_template.
void resource_log_setup(const char* path_template, double cpu_threshold, double memory_threshold);

// resource_log_setup with the thresholds read from decimal texts (atof).
void resource_log_configure(const char* path_template, const char* cpu_threshold,
                            const char* memory_threshold);

// Writes the line when the process was expensive, then forgets the template, so later calls
// write nothing. Every failure (getrusage, opening the file) writes nothing.
void resource_log_finish();

#endif
