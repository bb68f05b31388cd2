// The package's native part: reads a recording through the library's
// columnar interface and hands its columns to R as vectors.  The tables R
// builds from them (messages, blocks with their ends, fixations, trials with
// their variables) are made in R/read.R; only the bulk work is done here.
#include <cpp11.hpp>
#include <cpp11/declarations.hpp>

#include <R_ext/Rdynload.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#if defined(__linux__)
#include <sys/mman.h>
#include <unistd.h>
#endif

#include "orbapi.h"

namespace {

constexpr float kMissingPosition = ORB_MISSING_POSITION;
constexpr float kMissingScaled = ORB_MISSING_VALUE;
constexpr int kMissingWord = ORB_MISSING_WORD; // absent status or input word
constexpr int kMissingType = -ORB_MISSING_WORD; // absent extra-data type
constexpr uint16_t kHalfMillisecond = ORB_SAMPLE_HALF_MS;
constexpr int kMessage = MESSAGE;

// ---------------------------------------------------------------------------
// Log lines
// ---------------------------------------------------------------------------

// The lines the library logs during a read.  The library may log from a
// thread of its own (a compressed body is inflated there), hence the lock.
std::mutex logLock;
std::vector<std::string>* logLines = nullptr;

void collectLine(char* line)
{
    std::lock_guard<std::mutex> hold(logLock);
    if (logLines)
        logLines->emplace_back(line ? line : "");
}

// Collects the log lines while it lives.
class LogScope {
public:
    LogScope()
    {
        std::lock_guard<std::mutex> hold(logLock);
        logLines = &lines_;
    }
    ~LogScope()
    {
        std::lock_guard<std::mutex> hold(logLock);
        logLines = nullptr;
    }
    LogScope(const LogScope&) = delete;
    LogScope& operator=(const LogScope&) = delete;

    // The lines, each without its trailing white space.
    cpp11::writable::strings take()
    {
        std::lock_guard<std::mutex> hold(logLock);
        cpp11::writable::strings out(R_xlen_t(lines_.size()));
        for (size_t i = 0; i < lines_.size(); ++i) {
            std::string& s = lines_[i];
            while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ' '))
                s.pop_back();
            SET_STRING_ELT(out, R_xlen_t(i), cpp11::safe[Rf_mkCharLenCE](s.data(), int(s.size()), CE_NATIVE));
        }
        lines_.clear();
        return out;
    }

private:
    std::vector<std::string> lines_;
};

// ---------------------------------------------------------------------------
// Texts
// ---------------------------------------------------------------------------

// `n` bytes as well-formed UTF-8: every maximal ill-formed subsequence is
// replaced by U+FFFD.
std::string wellFormed(const unsigned char* p, size_t n)
{
    std::string out;
    out.reserve(n);
    size_t i = 0;
    while (i < n) {
        const unsigned c = p[i];
        if (c < 0x80) {
            out += char(c);
            ++i;
            continue;
        }
        size_t len = 0;
        unsigned lo = 0x80, hi = 0xBF; // range of the second byte
        if (c >= 0xC2 && c <= 0xDF) {
            len = 2;
        } else if (c >= 0xE0 && c <= 0xEF) {
            len = 3;
            lo = c == 0xE0 ? 0xA0 : lo;
            hi = c == 0xED ? 0x9F : hi;
        } else if (c >= 0xF0 && c <= 0xF4) {
            len = 4;
            lo = c == 0xF0 ? 0x90 : lo;
            hi = c == 0xF4 ? 0x8F : hi;
        }
        size_t k = 1;
        while (k < len && i + k < n) {
            const unsigned b = p[i + k];
            if (k == 1 ? (b < lo || b > hi) : (b < 0x80 || b > 0xBF))
                break;
            ++k;
        }
        if (len && k == len)
            out.append(reinterpret_cast<const char*>(p + i), len);
        else
            out += "\xEF\xBF\xBD";
        i += k;
    }
    return out;
}

// A message's text: its bytes up to the first NUL, one trailing line feed
// dropped.
SEXP messageText(const char* bytes, size_t length)
{
    const void* nul = std::memchr(bytes, 0, length);
    if (nul)
        length = size_t(static_cast<const char*>(nul) - bytes);
    if (length > 0 && bytes[length - 1] == '\n')
        --length;
    const std::string s = wellFormed(reinterpret_cast<const unsigned char*>(bytes), length);
    return cpp11::safe[Rf_mkCharLenCE](s.data(), int(s.size()), CE_UTF8);
}

// ---------------------------------------------------------------------------
// Columns to vectors
// ---------------------------------------------------------------------------

// Which stored markers of a column become NA.
enum class Missing { None, Float, Word, Type };

// One column's rows copied into an R vector.
struct Copy {
    ORB_COLUMN col;
    size_t first, rows;
    void* dst;
    Missing missing;
    const uint16_t* half; // the samples' flags: adds the half millisecond
    size_t discardBytes;  // of the column, given back once copied (0: kept)
};

// Gives the pages of a column that was copied (or is not wanted) back to
// the system, so that the columns and the R vectors made from them are not
// all in memory at once.  The columns belong to the caller until
// orb_free_columns, and nothing reads these bytes again: their content may
// go.  Only whole pages inside the column are given back.
void discard(const void* data, size_t bytes)
{
#if defined(__linux__) && defined(MADV_DONTNEED)
    const long size = sysconf(_SC_PAGESIZE);
    if (!data || size <= 0)
        return;
    const uintptr_t page = uintptr_t(size);
    const uintptr_t a = (uintptr_t(data) + page - 1) & ~(page - 1);
    const uintptr_t b = (uintptr_t(data) + bytes) & ~(page - 1);
    if (b > a)
        madvise(reinterpret_cast<void*>(a), b - a, MADV_DONTNEED);
#else
    (void)data;
    (void)bytes;
#endif
}

template <class T>
const T* rowsOf(const Copy& c)
{
    return static_cast<const T*>(c.col.data) + c.first;
}

template <class T>
void toInteger(const Copy& c, int na)
{
    const T* s = rowsOf<T>(c);
    int* d = static_cast<int*>(c.dst);
    const int marker = c.missing == Missing::Word ? kMissingWord
                       : c.missing == Missing::Type ? kMissingType
                                                    : std::numeric_limits<int>::min();
    for (size_t r = 0; r < c.rows; ++r) {
        const int v = int(s[r]);
        d[r] = v == marker ? na : v;
    }
}

template <class T>
void toDouble(const Copy& c)
{
    const T* s = rowsOf<T>(c);
    double* d = static_cast<double*>(c.dst);
    for (size_t r = 0; r < c.rows; ++r)
        d[r] = double(s[r]);
}

void run(const Copy& c, double naReal, int naInt)
{
    switch (c.col.type) {
    case ORB_COLUMN_FLOAT32: {
        const float* s = rowsOf<float>(c);
        double* d = static_cast<double*>(c.dst);
        if (c.missing == Missing::Float) {
            for (size_t r = 0; r < c.rows; ++r)
                d[r] = (s[r] == kMissingPosition || s[r] == kMissingScaled) ? naReal : double(s[r]);
        } else {
            for (size_t r = 0; r < c.rows; ++r)
                d[r] = double(s[r]);
        }
        break;
    }
    case ORB_COLUMN_UINT32:
        if (c.half) {
            const uint32_t* s = rowsOf<uint32_t>(c);
            const uint16_t* f = c.half + c.first;
            double* d = static_cast<double*>(c.dst);
            for (size_t r = 0; r < c.rows; ++r)
                d[r] = double(s[r]) + ((f[r] & kHalfMillisecond) ? 0.5 : 0.0);
        } else {
            toDouble<uint32_t>(c);
        }
        break;
    case ORB_COLUMN_FLOAT64: toDouble<double>(c); break;
    case ORB_COLUMN_INT64: toDouble<int64_t>(c); break;
    case ORB_COLUMN_UINT64: toDouble<uint64_t>(c); break;
    case ORB_COLUMN_UINT8: toInteger<uint8_t>(c, naInt); break;
    case ORB_COLUMN_INT16: toInteger<int16_t>(c, naInt); break;
    case ORB_COLUMN_UINT16: toInteger<uint16_t>(c, naInt); break;
    case ORB_COLUMN_INT32: toInteger<int32_t>(c, naInt); break;
    default: break;
    }
}

bool isDouble(int type)
{
    return type == ORB_COLUMN_FLOAT32 || type == ORB_COLUMN_FLOAT64 || type == ORB_COLUMN_UINT32 ||
           type == ORB_COLUMN_INT64 || type == ORB_COLUMN_UINT64;
}

// Runs the copies on up to two threads (they touch no R object, only the
// memory of vectors made beforehand).
void runAll(const std::vector<Copy>& copies)
{
    const double naReal = NA_REAL;
    const int naInt = NA_INTEGER;
    std::atomic<size_t> next{0};
    auto work = [&] {
        for (size_t i; (i = next.fetch_add(1)) < copies.size();) {
            run(copies[i], naReal, naInt);
            discard(copies[i].col.data, copies[i].discardBytes);
        }
    };
    size_t bytes = 0;
    for (const Copy& c : copies)
        bytes += c.rows;
    if (bytes < 200000 || std::thread::hardware_concurrency() < 2) {
        work();
        return;
    }
    std::thread helper(work);
    work();
    helper.join();
}

// ---------------------------------------------------------------------------
// A read
// ---------------------------------------------------------------------------

struct ColumnsOwner {
    ORB_COLUMNS* c = nullptr;
    ~ColumnsOwner() { orb_free_columns(c); }
};

struct Span {
    size_t first = 0, rows = 0;
};

const void* find(ORB_COLUMNS* c, int table, const char* name)
{
    ORB_COLUMN col;
    return orb_columns_find(c, table, name, &col) == 0 ? col.data : nullptr;
}

// The time by which an item is placed in the index: an end event's end time,
// the start time of every other event.
bool placedAtEnd(uint16_t type)
{
    return type == 2 || type == 4 || type == 6 || type == 8 || type == 16 || type == 18;
}

// Index positions [from, to) of a window: from the first item at or after
// `start` to the first at or after `end` (ms, the times handed out).
struct Window {
    double start, end;
    uint64_t from, to;
};

void note(Window& w, double t, int32_t index)
{
    if (t >= w.start && uint64_t(index) < w.from)
        w.from = uint64_t(index);
    if (t >= w.end && uint64_t(index) < w.to)
        w.to = uint64_t(index);
}

void placeWindow(ORB_COLUMNS* c, Window& w)
{
    const size_t ns = orb_columns_rows(c, ORB_TABLE_SAMPLES);
    const size_t ne = orb_columns_rows(c, ORB_TABLE_EVENTS);
    const size_t nb = orb_columns_rows(c, ORB_TABLE_BLOCKS);
    auto st = static_cast<const uint32_t*>(find(c, ORB_TABLE_SAMPLES, "time"));
    auto sf = static_cast<const uint16_t*>(find(c, ORB_TABLE_SAMPLES, "flags"));
    auto si = static_cast<const int32_t*>(find(c, ORB_TABLE_SAMPLES, "index"));
    for (size_t r = 0; r < ns && st && sf && si; ++r)
        note(w, double(st[r]) + ((sf[r] & kHalfMillisecond) ? 0.5 : 0.0), si[r]);
    auto ety = static_cast<const uint16_t*>(find(c, ORB_TABLE_EVENTS, "type"));
    auto es = static_cast<const uint32_t*>(find(c, ORB_TABLE_EVENTS, "start_time"));
    auto ee = static_cast<const uint32_t*>(find(c, ORB_TABLE_EVENTS, "end_time"));
    auto ei = static_cast<const int32_t*>(find(c, ORB_TABLE_EVENTS, "index"));
    for (size_t r = 0; r < ne && ety && es && ee && ei; ++r)
        note(w, double(placedAtEnd(ety[r]) ? ee[r] : es[r]), ei[r]);
    auto bt = static_cast<const uint32_t*>(find(c, ORB_TABLE_BLOCKS, "time"));
    auto bi = static_cast<const int32_t*>(find(c, ORB_TABLE_BLOCKS, "index"));
    for (size_t r = 0; r < nb && bt && bi; ++r)
        note(w, double(bt[r]), bi[r]);
    if (w.to < w.from)
        w.to = w.from;
}

// The rows of `table` whose index lies in the window (rows are in index
// order).
Span spanOf(ORB_COLUMNS* c, int table, const Window& w)
{
    const size_t n = orb_columns_rows(c, table);
    auto index = static_cast<const int32_t*>(find(c, table, "index"));
    if (!index)
        return {0, n};
    auto below = [](int32_t i, uint64_t v) { return uint64_t(i) < v; };
    const size_t a = size_t(std::lower_bound(index, index + n, w.from, below) - index);
    const size_t b = size_t(std::lower_bound(index + a, index + n, w.to, below) - index);
    return {a, b - a};
}

Missing missingOf(int table, const std::string& name, int type, bool sentinels)
{
    if (sentinels || (table != ORB_TABLE_SAMPLES && table != ORB_TABLE_EVENTS))
        return Missing::None;
    if (type == ORB_COLUMN_FLOAT32)
        return Missing::Float;
    if (table == ORB_TABLE_SAMPLES && (name == "status" || name == "input"))
        return Missing::Word;
    if (table == ORB_TABLE_SAMPLES && name == "extra_type")
        return Missing::Type;
    return Missing::None;
}

// Makes the vectors of the chosen columns of `table` (all when `wanted` is
// empty) and notes their copies.  The columns are named and ordered as
// `wanted` names them.
cpp11::writable::list tableOf(ORB_COLUMNS* c, int table, const Span& span,
                              const std::vector<std::string>& wanted, bool sentinels,
                              std::vector<Copy>& copies)
{
    std::vector<ORB_COLUMN> cols;
    if (wanted.empty()) {
        const int count = orb_columns_count(c, table);
        for (int i = 0; i < count; ++i) {
            ORB_COLUMN col;
            if (orb_columns_column(c, table, i, &col) == 0)
                cols.push_back(col);
        }
    } else {
        for (const std::string& name : wanted) {
            ORB_COLUMN col;
            if (orb_columns_find(c, table, name.c_str(), &col) == 0)
                cols.push_back(col);
        }
    }
    auto flags = table == ORB_TABLE_SAMPLES
                     ? static_cast<const uint16_t*>(find(c, table, "flags"))
                     : nullptr;
    cpp11::writable::list out(R_xlen_t(cols.size()));
    cpp11::writable::strings names(R_xlen_t(cols.size()));
    for (size_t i = 0; i < cols.size(); ++i) {
        const ORB_COLUMN& col = cols[i];
        const std::string name = col.name;
        SEXP v = cpp11::safe[Rf_allocVector](isDouble(col.type) ? REALSXP : INTSXP, R_xlen_t(span.rows));
        out[R_xlen_t(i)] = v; // protected from here on
        names[R_xlen_t(i)] = name;
        if (span.rows && col.data) {
            const uint16_t* half = (flags && name == "time") ? flags : nullptr;
            // The samples' columns are given back as they are copied, but
            // the flags, which the time's copy reads, only at the end.
            const bool give = table == ORB_TABLE_SAMPLES && name != "flags";
            copies.push_back({col, span.first, span.rows,
                              isDouble(col.type) ? static_cast<void*>(REAL(v))
                                                 : static_cast<void*>(INTEGER(v)),
                              missingOf(table, name, col.type, sentinels), half,
                              give ? orb_columns_rows(c, table) * orb_column_type_size(col.type) : 0});
        }
    }
    out.names() = names;
    return out;
}

// The names of every column of `table`.
cpp11::writable::strings namesOf(ORB_COLUMNS* c, int table)
{
    const int count = orb_columns_count(c, table);
    cpp11::writable::strings out(static_cast<R_xlen_t>(count > 0 ? count : 0));
    for (int i = 0; i < count; ++i) {
        ORB_COLUMN col;
        if (orb_columns_column(c, table, i, &col) == 0)
            out[R_xlen_t(i)] = std::string(col.name);
    }
    return out;
}

// The texts of the messages among the events' rows.
cpp11::writable::strings messagesOf(ORB_COLUMNS* c, const Span& span)
{
    auto type = static_cast<const uint16_t*>(find(c, ORB_TABLE_EVENTS, "type"));
    auto offset = static_cast<const uint64_t*>(find(c, ORB_TABLE_EVENTS, "message_offset"));
    auto length = static_cast<const uint32_t*>(find(c, ORB_TABLE_EVENTS, "message_length"));
    size_t size = 0;
    const char* text = orb_columns_text(c, &size);
    size_t n = 0;
    for (size_t r = span.first; type && r < span.first + span.rows; ++r)
        n += type[r] == kMessage;
    cpp11::writable::strings out(static_cast<R_xlen_t>(n));
    if (!type || !offset || !length)
        return out;
    R_xlen_t k = 0;
    for (size_t r = span.first; r < span.first + span.rows; ++r) {
        if (type[r] != kMessage)
            continue;
        uint64_t o = offset[r], l = length[r];
        if (!text || o > size)
            o = l = 0;
        if (l > size - o)
            l = size - o;
        SET_STRING_ELT(out, k++, messageText(text ? text + o : "", size_t(l)));
    }
    return out;
}

// The trial numbers of every message.
cpp11::writable::integers messageTrials(ORB_COLUMNS* c)
{
    auto type = static_cast<const uint16_t*>(find(c, ORB_TABLE_EVENTS, "type"));
    auto trial = static_cast<const int32_t*>(find(c, ORB_TABLE_EVENTS, "trial"));
    cpp11::writable::integers out;
    for (size_t r = 0; type && trial && r < orb_columns_rows(c, ORB_TABLE_EVENTS); ++r)
        if (type[r] == kMessage)
            out.push_back(trial[r]);
    return out;
}

// What `orb info` counts beside the tables: the time the rows span, as the
// Python package's info counts it, and the placeholder samples.
cpp11::writable::list factsOf(ORB_COLUMNS* c, const Span& s, const Span& e, const Span& b)
{
    double lo = std::numeric_limits<double>::infinity(), hi = -lo;
    auto see = [&](double t, bool first) {
        if (first)
            lo = std::min(lo, t);
        hi = std::max(hi, t);
    };
    auto st = static_cast<const uint32_t*>(find(c, ORB_TABLE_SAMPLES, "time"));
    auto sf = static_cast<const uint16_t*>(find(c, ORB_TABLE_SAMPLES, "flags"));
    auto xt = static_cast<const int16_t*>(find(c, ORB_TABLE_SAMPLES, "extra_type"));
    auto x0 = static_cast<const uint16_t*>(find(c, ORB_TABLE_SAMPLES, "extra_data_0"));
    int placeholders = 0;
    for (size_t r = s.first; r < s.first + s.rows; ++r) {
        if (st && sf)
            see(double(st[r]) + ((sf[r] & kHalfMillisecond) ? 0.5 : 0.0), true);
        if (xt && x0 && xt[r] == ORB_PLACEHOLDER && x0[r] == ORB_PLACEHOLDER)
            ++placeholders;
    }
    auto bt = static_cast<const uint32_t*>(find(c, ORB_TABLE_BLOCKS, "time"));
    for (size_t r = b.first; bt && r < b.first + b.rows; ++r)
        see(double(bt[r]), true);
    auto es = static_cast<const uint32_t*>(find(c, ORB_TABLE_EVENTS, "start_time"));
    auto ee = static_cast<const uint32_t*>(find(c, ORB_TABLE_EVENTS, "end_time"));
    for (size_t r = e.first; es && ee && r < e.first + e.rows; ++r) {
        see(double(es[r]), true);
        see(double(ee[r]), false);
    }
    const char* preamble = orb_columns_preamble(c);
    using namespace cpp11::literals;
    return cpp11::writable::list({
        "revision"_nm = orb_columns_revision(c),
        "oculant_revision"_nm = orb_columns_oculant_revision(c),
        "preamble"_nm = std::string(preamble ? preamble : ""),
        "items"_nm = double(orb_columns_items(c)),
        "duration_ms"_nm = lo <= hi ? hi - lo : 0.0,
        "placeholders"_nm = placeholders,
    });
}

// Cancels a read when the user interrupts R.  The library reports progress
// on the thread that called it; R is asked only there.
struct Interrupt {
    std::thread::id caller = std::this_thread::get_id();
};

void checkInterrupt(void*) { R_CheckUserInterrupt(); }

int progress(double, void* user)
{
    const Interrupt* i = static_cast<const Interrupt*>(user);
    if (std::this_thread::get_id() != i->caller)
        return 0;
    return R_ToplevelExec(checkInterrupt, nullptr) ? 0 : 1;
}

std::vector<std::string> stringsOf(SEXP x)
{
    std::vector<std::string> out;
    if (TYPEOF(x) == STRSXP)
        for (R_xlen_t i = 0; i < XLENGTH(x); ++i)
            out.emplace_back(cpp11::safe[Rf_translateCharUTF8](STRING_ELT(x, i)));
    return out;
}

} // namespace

// Reads a recording (`source` a path, or its bytes as a raw vector) and
// returns a list: either `error` (the library's reason, `code` its errval)
// and `log`, or the tables' vectors, the window's index positions, the
// facts of `orb info` and `log`.  `samples` names the sample columns to make
// (NULL for all); an unknown name returns `unknown` with the known names.
cpp11::list orb_read_(SEXP source, int consistency, bool velocities,
                                           bool camera, SEXP trialStart, SEXP trialEnd,
                                           bool sentinels, SEXP samples, double start,
                                           double end)
{
    using namespace cpp11::literals;
    const int flags = (velocities ? ORB_COLUMNS_VELOCITIES : 0) | (camera ? ORB_COLUMNS_CAMERA : 0);
    const std::vector<std::string> ts = stringsOf(trialStart), te = stringsOf(trialEnd);
    const char* tsp = ts.empty() ? nullptr : ts[0].c_str();
    const char* tep = te.empty() ? nullptr : te[0].c_str();
    Interrupt interrupt;
    LogScope log;
    ColumnsOwner owner;
    int err = 0;
    if (TYPEOF(source) == RAWSXP) {
        owner.c = orb_read_columns_memory(RAW(source), size_t(XLENGTH(source)), consistency, 1, 1,
                                          flags, tsp, tep, progress, &interrupt, &err);
    } else {
        const std::string path = cpp11::safe[Rf_translateChar](STRING_ELT(source, 0));
        owner.c = orb_read_columns(path.c_str(), consistency, 1, 1, flags, tsp, tep, progress,
                                   &interrupt, &err);
    }
    if (!owner.c) {
        const std::string reason = orb_get_last_error();
        return cpp11::writable::list({"error"_nm = reason, "code"_nm = err, "log"_nm = log.take()});
    }
    ORB_COLUMNS* c = owner.c;

    const std::vector<std::string> wanted = stringsOf(samples);
    for (const std::string& name : wanted) {
        ORB_COLUMN col;
        if (orb_columns_find(c, ORB_TABLE_SAMPLES, name.c_str(), &col) != 0)
            return cpp11::writable::list({"unknown"_nm = name,
                                          "known"_nm = namesOf(c, ORB_TABLE_SAMPLES),
                                          "log"_nm = log.take()});
    }

    Window w{std::isnan(start) ? -std::numeric_limits<double>::infinity() : start,
             std::isnan(end) ? std::numeric_limits<double>::infinity() : end,
             orb_columns_items(c), orb_columns_items(c)};
    placeWindow(c, w);
    const Span ss = spanOf(c, ORB_TABLE_SAMPLES, w);
    const Span es = spanOf(c, ORB_TABLE_EVENTS, w);
    // Blocks and trials are read whole: a block's end and a trial's
    // variables may lie outside the window.
    const Span bs{0, orb_columns_rows(c, ORB_TABLE_BLOCKS)};
    const Span trials{0, orb_columns_rows(c, ORB_TABLE_TRIALS)};
    const Span allEvents{0, orb_columns_rows(c, ORB_TABLE_EVENTS)};
    const bool windowed = es.first != 0 || es.rows != allEvents.rows;

    std::vector<Copy> copies;
    cpp11::writable::list out({
        "samples"_nm = tableOf(c, ORB_TABLE_SAMPLES, ss, wanted, sentinels, copies),
        "sample_columns"_nm = namesOf(c, ORB_TABLE_SAMPLES),
        "events"_nm = tableOf(c, ORB_TABLE_EVENTS, es, {}, sentinels, copies),
        "texts"_nm = messagesOf(c, es),
        "all_texts"_nm = windowed ? SEXP(messagesOf(c, allEvents)) : R_NilValue,
        "all_trials"_nm = windowed ? SEXP(messageTrials(c)) : R_NilValue,
        "blocks"_nm = tableOf(c, ORB_TABLE_BLOCKS, bs, {}, sentinels, copies),
        "trials"_nm = tableOf(c, ORB_TABLE_TRIALS, trials, {}, sentinels, copies),
        "window"_nm = cpp11::writable::doubles({double(w.from), double(w.to)}),
        "facts"_nm = factsOf(c, ss, es, spanOf(c, ORB_TABLE_BLOCKS, w)),
        "log"_nm = log.take(),
    });
    // Everything the reads above needed is read: the sample columns nobody
    // asked for go first, the flags last.
    const size_t nSamples = orb_columns_rows(c, ORB_TABLE_SAMPLES);
    ORB_COLUMN col;
    for (int k = 0; !wanted.empty() && orb_columns_column(c, ORB_TABLE_SAMPLES, k, &col) == 0; ++k)
        if (std::strcmp(col.name, "flags") != 0 &&
            std::find(wanted.begin(), wanted.end(), col.name) == wanted.end())
            discard(col.data, nSamples * orb_column_type_size(col.type));
    runAll(copies);
    if (orb_columns_find(c, ORB_TABLE_SAMPLES, "flags", &col) == 0)
        discard(col.data, nSamples * orb_column_type_size(col.type));
    return out;
}

// The version of the library compiled into the package.
std::string orb_library_version_() { return orb_library_version(); }

// R's table of entry points holds them as one generic function type.
template <class F>
DL_FUNC entry(F* f)
{
    return reinterpret_cast<DL_FUNC>(reinterpret_cast<void (*)(void)>(f));
}

extern "C" {

SEXP _orbapi_orb_read_(SEXP source, SEXP consistency, SEXP velocities, SEXP camera,
                       SEXP trialStart, SEXP trialEnd, SEXP sentinels, SEXP samples, SEXP start,
                       SEXP end)
{
    BEGIN_CPP11
    return cpp11::as_sexp(orb_read_(
        source, cpp11::as_cpp<int>(consistency), cpp11::as_cpp<bool>(velocities),
        cpp11::as_cpp<bool>(camera), trialStart, trialEnd, cpp11::as_cpp<bool>(sentinels), samples,
        cpp11::as_cpp<double>(start), cpp11::as_cpp<double>(end)));
    END_CPP11
}

SEXP _orbapi_orb_library_version_()
{
    BEGIN_CPP11
    return cpp11::as_sexp(orb_library_version_());
    END_CPP11
}

static const R_CallMethodDef callEntries[] = {
    {"_orbapi_orb_read_", entry(&_orbapi_orb_read_), 10},
    {"_orbapi_orb_library_version_", entry(&_orbapi_orb_library_version_), 0},
    {nullptr, nullptr, 0}};

// The library's log lines are collected during reads and handed to R as
// warnings; none is printed.
void R_init_orbapi(DllInfo* dll)
{
    R_registerRoutines(dll, nullptr, callEntries, nullptr, nullptr);
    R_useDynamicSymbols(dll, FALSE);
    R_forceSymbols(dll, TRUE);
    orb_set_log_function(collectLine);
}

} // extern "C"
