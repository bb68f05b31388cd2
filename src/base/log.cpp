#include "log.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "orbapi.h"

namespace {

// The caller's log function; null prints to standard output.
std::atomic<void (*)(char*)> logfcn{nullptr};

// The innermost LastErrorScope of this thread, and its last failure.
thread_local LastErrorScope* activeScope = nullptr;
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

void emit(const char* fmt, va_list args, bool lasting)
{
    char buffer[500] = {};
    std::vsnprintf(buffer, sizeof buffer, fmt, args);
    if (activeScope)
        activeScope->keep(buffer, lasting);
    if (auto sink = logfcn.load(std::memory_order_acquire))
        sink(buffer);
    else
        printAsFormat(buffer);
}

} // namespace

int orb_logv(const char* fmt, va_list args)
{
    emit(fmt, args, false);
    return 0;
}

int orb_log_lasting(const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    emit(fmt, args, true);
    va_end(args);
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

LastErrorScope::LastErrorScope() : outer_(activeScope) { activeScope = this; }

LastErrorScope::~LastErrorScope()
{
    activeScope = outer_;
    try {
        std::string all = text();
        if (outer_) { // as if logged under the outer scope
            outer_->keep(all.c_str());
            outer_->lasting_ += lasting_;
        }
        lastError = failed_ ? std::move(all) : lasting_;
    } catch (...) {
        lastError.clear(); // out of memory: no reason rather than a wrong one
    }
}

void LastErrorScope::keep(const char* line, bool lasting) noexcept
{
    try {
        const size_t n = std::strlen(line);
        if (lasting)
            lasting_.append(line, n);
        if (!dropped_ && lines_.size() + n <= kLimit) {
            lines_.append(line, n);
            return;
        }
        dropped_ = true;
        last_.assign(line, n);
    } catch (...) {
        dropped_ = true; // out of memory: the line is lost
    }
}

std::string LastErrorScope::text() const
{
    std::string all = lines_;
    if (dropped_)
        all.append(last_);
    return all;
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
