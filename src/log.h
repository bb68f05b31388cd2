// Diagnostics: every line the library reports goes through the process-wide
// log function that the caller sets with orb_set_log_function, or to
// standard output when none is set.
#ifndef ORBAPI_LOG_H
#define ORBAPI_LOG_H

#include <cstdarg>
#include <string>

// Formats one line (at most 499 characters) and emits it. Returns 0.
// print_log of the function interface is this, under its exported name.
int orb_log(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
int orb_logv(const char* fmt, va_list args);

// Collects the lines this thread logs while it lives, and makes them the
// thread's last failure reason (orb_get_last_error) when kept.
class LastErrorCapture {
public:
    LastErrorCapture();
    ~LastErrorCapture();
    LastErrorCapture(const LastErrorCapture&) = delete;
    LastErrorCapture& operator=(const LastErrorCapture&) = delete;

    // The call failed: what was logged becomes the last error.  Otherwise
    // the last error is cleared when the capture ends.
    void fail() { failed_ = true; }

private:
    std::string lines_;
    std::string* outer_;
    bool failed_ = false;
};

#endif
