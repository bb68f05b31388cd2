#include "log.h"

#include <atomic>
#include <cstdio>
#include <string>
#include <string_view>

#include "orbapi.h"

namespace {

// The caller's log function; null prints to standard output.
std::atomic<void (*)(char*)> logfcn{nullptr};

// Per thread: where its logged lines are collected, and its last failure.
thread_local std::string* capture = nullptr;
thread_local std::string lastError;

// Standard output receives the formatted text used as a format a second
// time, so "%%" that survived the first pass prints as "%".  Conversions
// that would need arguments have none to read: they are printed as they
// stand rather than reading whatever lies on the stack.
void printAsFormat(const char* text)
{
    std::string_view s(text);
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '%' && i + 1 < s.size() && s[i + 1] == '%') {
            out.push_back('%');
            ++i;
        } else {
            out.push_back(s[i]);
        }
    }
    std::fwrite(out.data(), 1, out.size(), stdout);
}

} // namespace

int orb_logv(const char* fmt, va_list args)
{
    char buffer[500] = {};
    std::vsnprintf(buffer, sizeof buffer, fmt, args);
    if (capture)
        capture->append(buffer);
    if (auto sink = logfcn.load(std::memory_order_acquire))
        sink(buffer);
    else
        printAsFormat(buffer);
    return 0;
}

int orb_log(const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    orb_logv(fmt, args);
    va_end(args);
    return 0;
}

LastErrorCapture::LastErrorCapture() : outer_(capture)
{
    capture = &lines_;
}

LastErrorCapture::~LastErrorCapture()
{
    capture = outer_;
    if (outer_)
        outer_->append(lines_);
    lastError = failed_ ? lines_ : std::string();
}

extern "C" {

const char* orb_get_last_error(void) { return lastError.c_str(); }

void orb_set_log_function(void (*fcn)(char*))
{
    logfcn.store(fcn, std::memory_order_release);
}

int print_log(char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    orb_logv(fmt, args);
    va_end(args);
    return 0;
}

} // extern "C"
