// What the fuzz targets share: a scratch folder to work in, a request record made fresh for
// every input, and fatal exits turned into an exception the target catches.
#ifndef TESSEL_FUZZ_SUPPORT_H
#define TESSEL_FUZZ_SUPPORT_H

#include <cstddef>
#include <string>

// Thrown in place of ending the process when a fatal path (exit 253 or 254) is taken while an
// input runs: such an ending is deliberate, and the next input must still run.
struct fuzz_fatal_exit {
    int status;
};

// Makes a fresh scratch folder, makes it the working directory and DOCUMENT_ROOT, sends the
// logs and the page output to /dev/null, and confines file changes to the folder (see
// fuzz_jail.cpp). Call once, from LLVMFuzzerInitialize. Returns the folder.
const std::string& fuzz_scratch_init();

// Keeps the environment as it is now; fuzz_reset_request puts it back before every input, so
// that what one input set (a ".profile" it wrote) does not reach the next.
void fuzz_keep_environment();

// Empties the scratch folder, puts the kept environment back, frees the form entries and whatever
// the last input left in the request record, and gives the record its start-up values again.
void fuzz_reset_request();

// Sends the page output to /dev/null; request_init points it at standard output.
void fuzz_quiet_output();

// Runs f with fatal exits caught; the status of a fatal exit, else 0.
template <typename F> int fuzz_run(F&& f);

// True while fuzz_run is inside its function: fatal exits throw rather than end the process.
extern bool fuzz_running;

// Starts noting the blocks allocated while the input runs.
void fuzz_input_begin();

// After a fatal exit: the blocks the interrupted calls still hold are not lost memory (the
// process would have ended there), so the leak checker is told to ignore them.
void fuzz_input_ended_fatally();

template <typename F> int fuzz_run(F&& f)
{
    fuzz_input_begin();
    fuzz_running = true;
    int status = 0;
    try {
        f();
    } catch (const fuzz_fatal_exit& e) {
        status = e.status;
    }
    fuzz_running = false;
    if (status)
        fuzz_input_ended_fatally();
    return status;
}

#endif
