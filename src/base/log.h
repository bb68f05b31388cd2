// Diagnostics: every line the library reports goes through the process-wide
// log function that the caller sets with orb_set_log_function, or to
// standard output when none is set.  Each thread also keeps the reason of
// its last failed call (orb_get_last_error), collected by LastErrorScope.
#ifndef ORBAPI_LOG_H
#define ORBAPI_LOG_H

#include <cstdarg>
#include <cstddef>
#include <string>

// Formats one line (at most 499 characters) and emits it. Returns 0.
// print_log of the function interface is this, under its exported name.
int orb_log(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
int orb_logv(const char* fmt, va_list args);
// orb_log for a line that stays this thread's last error even when the call
// that logged it succeeds (see LastErrorScope): the one line that says a
// read stopped before the end of its bytes.
int orb_log_lasting(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// The reason of a failed call, for orb_get_last_error.  An exported entry
// point that can fail (opening a file, reading it into columns) makes one
// on its first line, on the stack:
//
//     _ORBFILE* orb_open_something(..., int* errval)
//     {
//         LastErrorScope scope;
//         try {
//             ... work that logs and may throw ...
//             scope.succeeded();
//             return handle;
//         } catch (const ORBException& e) {
//             orb_log("%s\n", e.what());   // still inside the scope
//         }
//         return nullptr;
//     }
//
// While it lives, every line the library logs on this thread is also kept
// (the log function or standard output still receives it unchanged).  When
// it ends, the kept lines become this thread's last error, unless
// succeeded() was called: then the last error becomes "".  So a call that
// leaves by an exception counts as failed.  Scopes may nest (an entry point
// built on another): an inner scope hands its lines on to the outer one, and
// the outer one's outcome is what remains.  Lines beyond kLimit bytes are
// left out, except the last one logged, which is always kept.
class LastErrorScope {
public:
    static constexpr size_t kLimit = 1 << 20;

    LastErrorScope();
    ~LastErrorScope();
    LastErrorScope(const LastErrorScope&) = delete;
    LastErrorScope& operator=(const LastErrorScope&) = delete;

    // The call succeeded: its lines are not a reason.
    void succeeded() { failed_ = false; }

    // Keeps one logged line (called by the logger); a lasting one also
    // outlives success.
    void keep(const char* line, bool lasting = false) noexcept;

private:
    // The kept lines, in order, and the last line when it did not fit.
    std::string text() const;

    LastErrorScope* outer_;
    std::string lines_;
    std::string last_;
    std::string lasting_;
    bool dropped_ = false;
    bool failed_ = true;
};

#endif
