// orbapi._core: the native side of the Python package.
//
// Two ways in: read_columns() reads a whole recording through the columnar
// reader (the GIL released throughout) and hands its arrays to numpy without
// copying them, and Cursor wraps an open handle for item-by-item access.
// Every diagnostic line the library logs during one of these calls is
// collected on the calling thread and, once the call is back under the GIL,
// handed to the standard logging module (logger "orbapi").
#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/pair.h>
#include <nanobind/stl/unique_ptr.h>
#include <nanobind/stl/vector.h>

#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ItemFormat.h"
#include "orbapi.h"

namespace nb = nanobind;
using namespace nb::literals;

namespace {

// ---------------------------------------------------------------------------
// Log routing
// ---------------------------------------------------------------------------

thread_local std::vector<std::string>* t_lines = nullptr;

void emitLines(const std::vector<std::string>& lines)
{
    if (lines.empty())
        return;
    nb::object logger = nb::module_::import_("logging").attr("getLogger")("orbapi");
    for (const std::string& line : lines) {
        std::string text = line;
        while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())))
            text.pop_back();
        logger.attr("warning")("%s", nb::str(text.data(), text.size()));
    }
}

// The library's log function: collects on the calling thread while one of
// our calls runs; a line from elsewhere goes to logging directly.
void logSink(char* line)
{
    if (t_lines) {
        t_lines->emplace_back(line ? line : "");
        return;
    }
    if (!Py_IsInitialized())
        return;
    nb::gil_scoped_acquire gil;
    try {
        emitLines({std::string(line ? line : "")});
    } catch (nb::python_error& e) {
        e.discard_as_unraisable("orbapi log");
    }
}

// Collects the log lines of one call; emit() hands them on (under the GIL).
class LogScope {
public:
    LogScope() : prev_(t_lines) { t_lines = &lines_; }
    ~LogScope() { t_lines = prev_; }
    LogScope(const LogScope&) = delete;
    LogScope& operator=(const LogScope&) = delete;

    std::string text() const
    {
        std::string s;
        for (const std::string& l : lines_) s += l;
        return s;
    }
    void emit()
    {
        t_lines = prev_;
        std::vector<std::string> lines;
        lines.swap(lines_);
        emitLines(lines);
        t_lines = &lines_;
    }

private:
    std::vector<std::string> lines_;
    std::vector<std::string>* prev_;
};

// Raised for a file the library refuses; the text is the library's reason.
struct OrbFailure {
    std::string reason;
};

std::string trimmed(std::string s)
{
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ' '))
        s.pop_back();
    return s.empty() ? std::string("the library refused the recording") : s;
}

// A bytes-like object held for the length of a call.
class Buffer {
public:
    explicit Buffer(nb::handle obj)
    {
        if (PyObject_GetBuffer(obj.ptr(), &view_, PyBUF_SIMPLE) != 0)
            throw nb::python_error();
        held_ = true;
    }
    ~Buffer()
    {
        if (held_) PyBuffer_Release(&view_);
    }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    const void* data() const { return view_.buf; }
    size_t size() const { return size_t(view_.len); }

private:
    Py_buffer view_{};
    bool held_ = false;
};

// The text of a message as Python sees it: the stored bytes up to the first
// NUL, one trailing line feed dropped, decoded as UTF-8 with replacements.
nb::str messageText(const char* bytes, size_t length)
{
    const void* nul = std::memchr(bytes, 0, length);
    if (nul) length = size_t(static_cast<const char*>(nul) - bytes);
    if (length > 0 && bytes[length - 1] == '\n') --length;
    PyObject* s = PyUnicode_DecodeUTF8(bytes, Py_ssize_t(length), "replace");
    if (!s) throw nb::python_error();
    return nb::steal<nb::str>(s);
}

// ---------------------------------------------------------------------------
// Columns
// ---------------------------------------------------------------------------

constexpr float kMissingPosition = -32768.0f;
constexpr float kMissingScaled = 100000000.0f;

nb::dlpack::dtype dtypeOf(int type)
{
    switch (type) {
    case ORB_COLUMN_UINT8: return nb::dtype<uint8_t>();
    case ORB_COLUMN_INT16: return nb::dtype<int16_t>();
    case ORB_COLUMN_UINT16: return nb::dtype<uint16_t>();
    case ORB_COLUMN_INT32: return nb::dtype<int32_t>();
    case ORB_COLUMN_UINT32: return nb::dtype<uint32_t>();
    case ORB_COLUMN_FLOAT32: return nb::dtype<float>();
    case ORB_COLUMN_FLOAT64: return nb::dtype<double>();
    case ORB_COLUMN_INT64: return nb::dtype<int64_t>();
    case ORB_COLUMN_UINT64: return nb::dtype<uint64_t>();
    }
    throw std::runtime_error("unknown column type " + std::to_string(type));
}

// A read recording.  The arrays handed out point into the columns and keep
// this object (and so the columns) alive.
class Columns {
public:
    explicit Columns(ORB_COLUMNS* c) : c_(c) {}
    ~Columns() { orb_free_columns(c_); }
    Columns(const Columns&) = delete;
    Columns& operator=(const Columns&) = delete;

    // Replaces the missing markers of every float column of samples and
    // events with NaN, in place, and derives the samples' times in
    // milliseconds with the half millisecond.  Runs without the GIL.
    void prepare(bool sentinels)
    {
        if (!sentinels) {
            for (int table : {ORB_TABLE_SAMPLES, ORB_TABLE_EVENTS}) {
                const size_t n = orb_columns_rows(c_, table);
                const int count = orb_columns_count(c_, table);
                for (int i = 0; i < count; ++i) {
                    ORB_COLUMN col;
                    if (orb_columns_column(c_, table, i, &col) != 0 || col.type != ORB_COLUMN_FLOAT32 || !col.data)
                        continue;
                    // The columns belong to us until orb_free_columns.
                    float* v = const_cast<float*>(static_cast<const float*>(col.data));
                    const float nan = std::nanf("");
                    for (size_t r = 0; r < n; ++r)
                        v[r] = (v[r] == kMissingPosition || v[r] == kMissingScaled) ? nan : v[r];
                }
            }
        }
        const size_t n = orb_columns_rows(c_, ORB_TABLE_SAMPLES);
        ORB_COLUMN time, flags;
        if (n && orb_columns_find(c_, ORB_TABLE_SAMPLES, "time", &time) == 0 &&
            orb_columns_find(c_, ORB_TABLE_SAMPLES, "flags", &flags) == 0) {
            sampleTime_.reset(new double[n]);
            const uint32_t* t = static_cast<const uint32_t*>(time.data);
            const uint16_t* f = static_cast<const uint16_t*>(flags.data);
            for (size_t r = 0; r < n; ++r)
                sampleTime_[r] = double(t[r]) + ((f[r] & kHalfMillisecond) ? 0.5 : 0.0);
        }
    }

    size_t rows(int table) const { return orb_columns_rows(c_, table); }

    // (name, array) for every column of `table`, in the library's order.
    static std::vector<std::pair<std::string, nb::object>> table(nb::handle self, int table)
    {
        Columns& me = nb::cast<Columns&>(self);
        std::vector<std::pair<std::string, nb::object>> out;
        const size_t n = me.rows(table);
        const int count = orb_columns_count(me.c_, table);
        for (int i = 0; i < count; ++i) {
            ORB_COLUMN col;
            if (orb_columns_column(me.c_, table, i, &col) != 0)
                continue;
            out.emplace_back(col.name, array(self, col.data, n, col.type));
        }
        return out;
    }

    // The samples' times as float64 milliseconds (half milliseconds added).
    static nb::object sampleTime(nb::handle self)
    {
        Columns& me = nb::cast<Columns&>(self);
        return array(self, me.sampleTime_.get(), me.rows(ORB_TABLE_SAMPLES), ORB_COLUMN_FLOAT64);
    }

    // The texts of the events table's messages, decoded, in row order.
    nb::list messages() const
    {
        nb::list out;
        const size_t n = rows(ORB_TABLE_EVENTS);
        ORB_COLUMN type, offset, length;
        size_t size = 0;
        const char* text = orb_columns_text(c_, &size);
        if (!n || orb_columns_find(c_, ORB_TABLE_EVENTS, "type", &type) != 0 ||
            orb_columns_find(c_, ORB_TABLE_EVENTS, "message_offset", &offset) != 0 ||
            orb_columns_find(c_, ORB_TABLE_EVENTS, "message_length", &length) != 0)
            return out;
        const uint16_t* ty = static_cast<const uint16_t*>(type.data);
        const uint64_t* off = static_cast<const uint64_t*>(offset.data);
        const uint32_t* len = static_cast<const uint32_t*>(length.data);
        for (size_t r = 0; r < n; ++r) {
            if (ty[r] != MESSAGE)
                continue;
            uint64_t o = off[r], l = len[r];
            if (!text || o > size) o = l = 0;
            if (l > size - o) l = size - o;
            out.append(messageText(text ? text + o : "", size_t(l)));
        }
        return out;
    }

    std::string preamble() const
    {
        const char* p = orb_columns_preamble(c_);
        return p ? p : "";
    }
    int revision() const { return orb_columns_revision(c_); }
    int oculantRevision() const { return orb_columns_oculant_revision(c_); }
    size_t items() const { return orb_columns_items(c_); }

private:
    static nb::object array(nb::handle owner, const void* data, size_t n, int type)
    {
        // An empty table has no storage: numpy still wants an aligned address.
        alignas(8) static const unsigned char empty[8] = {};
        if (!data || !n) {
            data = empty;
            n = 0;
        }
        size_t shape[1] = {n};
        nb::ndarray<nb::numpy> a(const_cast<void*>(data), 1, shape, owner, nullptr, dtypeOf(type));
        return a.cast();
    }

    ORB_COLUMNS* c_;
    std::unique_ptr<double[]> sampleTime_;
};

// Reads a recording from `path` (bytes, file system encoding) or from the
// bytes-like `data`.
std::unique_ptr<Columns> readColumns(std::optional<nb::bytes> path, nb::object data, int consistency,
                                     bool events, bool samples, int flags,
                                     std::optional<std::string> trialStart,
                                     std::optional<std::string> trialEnd, bool sentinels)
{
    LogScope log;
    ORB_COLUMNS* c = nullptr;
    int err = 0;
    std::unique_ptr<Columns> out;
    {
        std::optional<Buffer> buffer;
        std::string file;
        if (path)
            file.assign(path->c_str(), path->size());
        else
            buffer.emplace(data);
        const char* ts = trialStart ? trialStart->c_str() : nullptr;
        const char* te = trialEnd ? trialEnd->c_str() : nullptr;
        nb::gil_scoped_release release;
        if (path)
            c = orb_read_columns(file.c_str(), consistency, events, samples, flags, ts, te, nullptr,
                                 nullptr, &err);
        else
            c = orb_read_columns_memory(buffer->data(), buffer->size(), consistency, events, samples,
                                        flags, ts, te, nullptr, nullptr, &err);
        if (c) {
            out.reset(new Columns(c));
            out->prepare(sentinels);
        }
    }
    std::string reason = c ? std::string() : std::string(orb_get_last_error());
    if (!c && reason.empty()) reason = log.text();
    log.emit();
    if (!c) {
        if (err == -3) throw std::bad_alloc();
        throw OrbFailure{trimmed(reason)};
    }
    return out;
}

// ---------------------------------------------------------------------------
// Cursor
// ---------------------------------------------------------------------------

// Record members by name, in the columns' order.
struct Field {
    const char* name;
    size_t offset;
    char kind; // 'f' float, 'I' uint32, 'H' uint16, 'h' int16, 'B' uint8
};

#define ORB_PAIR(member, name) \
    Field{name "_left", offsetof(FSAMPLE, member), 'f'}, \
    Field{name "_right", offsetof(FSAMPLE, member) + sizeof(float), 'f'}

const std::vector<Field>& sampleFields()
{
    static const std::vector<Field> fields = {
        ORB_PAIR(rawX, "raw_x"), ORB_PAIR(rawY, "raw_y"), ORB_PAIR(secondX, "second_x"),
        ORB_PAIR(secondY, "second_y"), ORB_PAIR(pupilSize, "pupil_size"), ORB_PAIR(gazeX, "gaze_x"),
        ORB_PAIR(gazeY, "gaze_y"),
        {"resolution_x", offsetof(FSAMPLE, resolutionX), 'f'},
        {"resolution_y", offsetof(FSAMPLE, resolutionY), 'f'},
        ORB_PAIR(gazeVelX, "gaze_vel_x"), ORB_PAIR(gazeVelY, "gaze_vel_y"),
        ORB_PAIR(secondVelX, "second_vel_x"), ORB_PAIR(secondVelY, "second_vel_y"),
        ORB_PAIR(rawVelX, "raw_vel_x"), ORB_PAIR(rawVelY, "raw_vel_y"),
        ORB_PAIR(fastGazeVelX, "fast_gaze_vel_x"), ORB_PAIR(fastGazeVelY, "fast_gaze_vel_y"),
        ORB_PAIR(fastSecondVelX, "fast_second_vel_x"), ORB_PAIR(fastSecondVelY, "fast_second_vel_y"),
        ORB_PAIR(fastRawVelX, "fast_raw_vel_x"), ORB_PAIR(fastRawVelY, "fast_raw_vel_y"),
        {"extra_data_0", offsetof(FSAMPLE, extraData) + 0, 'H'},
        {"extra_data_1", offsetof(FSAMPLE, extraData) + 2, 'H'},
        {"extra_data_2", offsetof(FSAMPLE, extraData) + 4, 'H'},
        {"extra_data_3", offsetof(FSAMPLE, extraData) + 6, 'H'},
        {"extra_data_4", offsetof(FSAMPLE, extraData) + 8, 'H'},
        {"extra_data_5", offsetof(FSAMPLE, extraData) + 10, 'H'},
        {"extra_data_6", offsetof(FSAMPLE, extraData) + 12, 'H'},
        {"extra_data_7", offsetof(FSAMPLE, extraData) + 14, 'H'},
        {"flags", offsetof(FSAMPLE, flags), 'H'},
        {"input", offsetof(FSAMPLE, input), 'H'},
        {"buttons", offsetof(FSAMPLE, buttons), 'H'},
        {"extra_type", offsetof(FSAMPLE, extraType), 'h'},
        {"status", offsetof(FSAMPLE, status), 'H'},
    };
    return fields;
}
#undef ORB_PAIR

#define ORB_EF(member, name, kind) Field{name, offsetof(FEVENT, member), kind}
const std::vector<Field>& eventFields()
{
    static const std::vector<Field> fields = {
        ORB_EF(type, "type", 'H'), ORB_EF(contents, "contents", 'H'),
        ORB_EF(startTime, "start_time", 'I'), ORB_EF(endTime, "end_time", 'I'),
        ORB_EF(startPosX, "start_pos_x", 'f'), ORB_EF(startPosY, "start_pos_y", 'f'),
        ORB_EF(startGazeX, "start_gaze_x", 'f'), ORB_EF(startGazeY, "start_gaze_y", 'f'),
        ORB_EF(startScalar, "start_scalar", 'f'), ORB_EF(endPosX, "end_pos_x", 'f'),
        ORB_EF(endPosY, "end_pos_y", 'f'), ORB_EF(endGazeX, "end_gaze_x", 'f'),
        ORB_EF(endGazeY, "end_gaze_y", 'f'), ORB_EF(endScalar, "end_scalar", 'f'),
        ORB_EF(avgPosX, "avg_pos_x", 'f'), ORB_EF(avgPosY, "avg_pos_y", 'f'),
        ORB_EF(avgGazeX, "avg_gaze_x", 'f'), ORB_EF(avgGazeY, "avg_gaze_y", 'f'),
        ORB_EF(avgScalar, "avg_scalar", 'f'), ORB_EF(avgPupil, "avg_pupil", 'f'),
        ORB_EF(peakPupil, "peak_pupil", 'f'), ORB_EF(startPupil, "start_pupil", 'f'),
        ORB_EF(endPupil, "end_pupil", 'f'), ORB_EF(startResX, "start_res_x", 'f'),
        ORB_EF(endResX, "end_res_x", 'f'), ORB_EF(startResY, "start_res_y", 'f'),
        ORB_EF(endResY, "end_res_y", 'f'), ORB_EF(eye, "eye", 'h'), ORB_EF(aux0, "aux0", 'H'),
        ORB_EF(blockFlags, "block_flags", 'H'), ORB_EF(blockFlags2, "block_flags2", 'H'),
        ORB_EF(blockOption, "block_option", 'H'), ORB_EF(itemTag, "item_tag", 'H'),
    };
    return fields;
}
#undef ORB_EF

#define ORB_RF(member, name, kind) Field{name, offsetof(Recording, member), kind}
const std::vector<Field>& blockFields()
{
    static const std::vector<Field> fields = {
        ORB_RF(sampleRate, "sample_rate", 'f'), ORB_RF(eventFlags, "event_flags", 'H'),
        ORB_RF(sampleFlags, "sample_flags", 'H'), ORB_RF(state, "state", 'B'),
        ORB_RF(recordType, "record_type", 'B'), ORB_RF(filterFlag, "filter_flag", 'B'),
        ORB_RF(modeFlag, "mode_flag", 'B'), ORB_RF(modeLevel, "mode_level", 'B'),
        ORB_RF(blockOption2, "block_option2", 'B'), ORB_RF(eyes, "eyes", 'B'),
    };
    return fields;
}
#undef ORB_RF

template <class T>
T load(const void* base, size_t offset)
{
    T v;
    std::memcpy(&v, static_cast<const char*>(base) + offset, sizeof v);
    return v;
}

void putFields(nb::dict& d, const void* rec, const std::vector<Field>& fields)
{
    for (const Field& f : fields) {
        switch (f.kind) {
        case 'f': d[f.name] = double(load<float>(rec, f.offset)); break;
        case 'I': d[f.name] = load<uint32_t>(rec, f.offset); break;
        case 'H': d[f.name] = load<uint16_t>(rec, f.offset); break;
        case 'h': d[f.name] = load<int16_t>(rec, f.offset); break;
        default: d[f.name] = load<uint8_t>(rec, f.offset); break;
        }
    }
}

nb::dict sampleDict(const FSAMPLE& s)
{
    nb::dict d;
    d["time"] = double(s.time) + ((s.flags & kHalfMillisecond) ? 0.5 : 0.0);
    putFields(d, &s, sampleFields());
    return d;
}

class Cursor {
public:
    Cursor(std::optional<nb::bytes> path, nb::object data, int consistency, bool events, bool samples,
           std::optional<std::string> trialStart, std::optional<std::string> trialEnd)
        : trialStart_(trialStart.value_or("TRIALID")), trialEnd_(trialEnd)
    {
        LogScope log;
        int err = 0;
        {
            std::string file;
            if (path) {
                file.assign(path->c_str(), path->size());
            } else {
                Buffer b(data);
                const char* p = static_cast<const char*>(b.data());
                memory_.assign(p, p + b.size());
            }
            nb::gil_scoped_release release;
            f_ = path ? orb_open_file(file.c_str(), consistency, events, samples, &err)
                      : orb_open_memory(memory_.data(), memory_.size(), consistency, events, samples, &err);
            if (f_ && (trialStart || trialEnd))
                orb_set_trial_identifier(f_, trialStart_.data(), trialEnd_ ? trialEnd_->data() : nullptr);
        }
        std::string reason = f_ ? std::string() : std::string(orb_get_last_error());
        if (!f_ && reason.empty()) reason = log.text();
        log.emit();
        if (!f_)
            throw OrbFailure{trimmed(reason)};
    }
    ~Cursor() { orb_close_file(f_); }
    Cursor(const Cursor&) = delete;
    Cursor& operator=(const Cursor&) = delete;

    void close()
    {
        LogScope log;
        orb_close_file(f_);
        f_ = nullptr;
        log.emit();
    }
    bool closed() const { return f_ == nullptr; }

    // Runs one library call on the open handle with its log lines collected.
    template <class F>
    auto call(F fn) -> decltype(fn(static_cast<_ORBFILE*>(nullptr)))
    {
        if (!f_)
            throw std::runtime_error("the recording is closed");
        LogScope log;
        auto r = fn(f_);
        log.emit();
        return r;
    }

    int next()
    {
        code_ = call([](_ORBFILE* f) { return orb_get_next_data(f); });
        return code_;
    }

    // The current item as (code, dict) or None.
    nb::object record()
    {
        return call([&](_ORBFILE* f) -> nb::object {
            ALLF_DATA* d = orb_get_float_data(f);
            if (!d || code_ == NO_MORE_ITEMS) return nb::none();
            return describe(code_, d);
        });
    }

    nb::object sampleAt(unsigned time)
    {
        return call([&](_ORBFILE* f) -> nb::object {
            ALLF_DATA* d = orb_get_sample_close_to_time(f, time);
            if (!d) return nb::none();
            return describe(SAMPLE, d);
        });
    }

    // The camera values of the current sample, or None.
    nb::object camera()
    {
        return call([&](_ORBFILE* f) -> nb::object {
            if (code_ != SAMPLE) return nb::none();
            ALLF_DATA* d = orb_get_sample_data(f);
            if (!d) return nb::none();
            FSAMPLE s = d->fs;
            nb::dict out;
            const char* side[2] = {"_left", "_right"};
            auto put = [&](const std::string& name, nb::object v) { out[name.c_str()] = v; };
            for (int e = 0; e < 2; ++e) put(std::string("pupil_area") + side[e], nb::int_(orb_get_uncorrected_pupil_area(f, &s, e)));
            for (int e = 0; e < 2; ++e) put(std::string("cr_area") + side[e], nb::int_(orb_get_uncorrected_cr_area(f, &s, e)));
            for (int e = 0; e < 2; ++e) put(std::string("cr2_area") + side[e], nb::int_(orb_get_uncorrected_cr2_area(f, &s, e)));
            int dim[2] = {0, 0};
            for (int e = 0; e < 2; ++e) {
                orb_get_pupil_dimension(f, &s, e, dim);
                put(std::string("pupil_width") + side[e], nb::int_(dim[0]));
                put(std::string("pupil_height") + side[e], nb::int_(dim[1]));
            }
            orb_get_cr_dimension(f, &s, dim);
            put("cr_width", nb::int_(dim[0]));
            put("cr_height", nb::int_(dim[1]));
            orb_get_window_position(f, &s, dim);
            put("window_x", nb::int_(dim[0]));
            put("window_y", nb::int_(dim[1]));
            using Getter = void (*)(_ORBFILE*, FSAMPLE*, int, float*);
            const std::pair<const char*, Getter> centres[] = {
                {"raw_pupil", orb_get_uncorrected_raw_pupil},
                {"raw_cr", orb_get_uncorrected_raw_cr},
                {"raw_cr2", orb_get_uncorrected_raw_cr2},
                {"pupil_cr", [](_ORBFILE* h, FSAMPLE* p, int e, float* xy) { orb_get_pupil_cr(h, p, e, xy); }},
            };
            for (const auto& c : centres) {
                float xy[2][2];
                for (int e = 0; e < 2; ++e) c.second(f, &s, e, xy[e]);
                for (int axis = 0; axis < 2; ++axis)
                    for (int e = 0; e < 2; ++e)
                        put(std::string(c.first) + (axis ? "_y" : "_x") + side[e], nb::float_(double(xy[e][axis])));
            }
            return out;
        });
    }

    nb::object trialHeader()
    {
        return call([](_ORBFILE* f) -> nb::object {
            TRIAL t{};
            if (orb_get_trial_header(f, &t) != 0) return nb::none();
            nb::dict d;
            d["start_time"] = t.startTime;
            d["end_time"] = t.endTime;
            d["duration"] = t.trialWord;
            d["block_time"] = t.rec ? nb::object(nb::int_(t.rec->time)) : nb::none();
            return d;
        });
    }

    // Sets a bookmark at the current position: its id, or None when none
    // could be set.
    std::optional<uint32_t> setBookmark()
    {
        return call([](_ORBFILE* f) -> std::optional<uint32_t> {
            BOOKMARK b{0xFFFFFFFFu};
            if (orb_set_bookmark(f, &b) != 0 || b.id == 0xFFFFFFFFu) return std::nullopt;
            return b.id;
        });
    }
    int bookmarkOp(uint32_t id, int (*op)(_ORBFILE*, BOOKMARK*))
    {
        return call([&](_ORBFILE* f) {
            BOOKMARK b{id};
            return op(f, &b);
        });
    }

    std::string preamble()
    {
        return call([](_ORBFILE* f) {
            int n = orb_get_preamble_text_length(f);
            if (n <= 0) return std::string();
            std::vector<char> buf(size_t(n) + 1, '\0');
            orb_get_preamble_text(f, buf.data(), n);
            return std::string(buf.data());
        });
    }

private:
    nb::object describe(int code, ALLF_DATA* d)
    {
        nb::dict out;
        if (code == SAMPLE) {
            out = sampleDict(d->fs);
        } else if (code == RECORDING) {
            out["time"] = d->rec.time;
            putFields(out, &d->rec, blockFields());
        } else {
            out["time"] = d->fe.time;
            putFields(out, &d->fe, eventFields());
            if (code == MESSAGE && d->fe.message) {
                int n = d->fe.message->length;
                n = n < 0 ? 0 : n > 498 ? 498 : n;
                out["text"] = messageText(d->fe.message->text, size_t(n));
            }
        }
        return nb::make_tuple(code, out);
    }

    _ORBFILE* f_ = nullptr;
    std::vector<char> memory_;
    std::string trialStart_;
    std::optional<std::string> trialEnd_;
    int code_ = NO_MORE_ITEMS;
};

} // namespace

NB_MODULE(_core, m)
{
    m.doc() = "Native side of orbapi: the columnar reader and the cursor.";
    orb_set_log_function(logSink);

    // Lives as long as the process (never released: the module may outlive
    // the interpreter's teardown of statics).
    static PyObject* orbError = PyErr_NewExceptionWithDoc(
        "orbapi.OrbError",
        "A recording the library refuses.  ``str(e)`` (and ``e.reason``) is the\n"
        "library's reason, e.g. ``'Bad magic.  Corrupt orb file.'``.\n\n"
        "Example::\n\n"
        "    try:\n"
        "        orbapi.read('broken.orb')\n"
        "    except orbapi.OrbError as e:\n"
        "        print('refused:', e.reason)\n",
        PyExc_Exception, nullptr);
    if (!orbError) throw nb::python_error();
    m.attr("OrbError") = nb::borrow(orbError);
    nb::register_exception_translator([](const std::exception_ptr& p, void*) {
        try {
            std::rethrow_exception(p);
        } catch (const OrbFailure& e) {
            nb::object exc = nb::borrow(orbError)(nb::str(e.reason.c_str()));
            exc.attr("reason") = nb::str(e.reason.c_str());
            PyErr_SetObject(orbError, exc.ptr());
        }
    });

    m.attr("SAMPLES") = int(ORB_TABLE_SAMPLES);
    m.attr("EVENTS") = int(ORB_TABLE_EVENTS);
    m.attr("BLOCKS") = int(ORB_TABLE_BLOCKS);
    m.attr("TRIALS") = int(ORB_TABLE_TRIALS);
    m.attr("VELOCITIES") = int(ORB_COLUMNS_VELOCITIES);
    m.attr("CAMERA") = int(ORB_COLUMNS_CAMERA);
    m.def("version", []() { return std::string(orb_get_version()); });
    m.def("library_version", []() { return std::string(orb_library_version()); });

    nb::class_<Columns>(m, "Columns")
        .def("rows", &Columns::rows, "table"_a)
        .def("table", [](nb::handle self, int t) { return Columns::table(self, t); }, "table"_a)
        .def("sample_time", [](nb::handle self) { return Columns::sampleTime(self); })
        .def("messages", &Columns::messages)
        .def_prop_ro("preamble", &Columns::preamble)
        .def_prop_ro("revision", &Columns::revision)
        .def_prop_ro("oculant_revision", &Columns::oculantRevision)
        .def_prop_ro("items", &Columns::items);

    m.def("read_columns", &readColumns, "path"_a.none(), "data"_a.none(), "consistency"_a, "events"_a,
          "samples"_a, "flags"_a, "trial_start"_a.none(), "trial_end"_a.none(), "sentinels"_a);

    nb::class_<Cursor>(m, "Cursor")
        .def(nb::init<std::optional<nb::bytes>, nb::object, int, bool, bool, std::optional<std::string>,
                      std::optional<std::string>>(),
             "path"_a.none(), "data"_a.none(), "consistency"_a, "events"_a, "samples"_a,
             "trial_start"_a.none(), "trial_end"_a.none())
        .def("close", &Cursor::close)
        .def_prop_ro("closed", &Cursor::closed)
        .def("next", &Cursor::next)
        .def("record", &Cursor::record)
        .def("sample_at", &Cursor::sampleAt, "time"_a)
        .def("camera", &Cursor::camera)
        .def("trial_header", &Cursor::trialHeader)
        .def("trial_count", [](Cursor& c) { return c.call(orb_get_trial_count); })
        .def("jump_to_trial", [](Cursor& c, int t) { return c.call([&](_ORBFILE* f) { return orb_jump_to_trial(f, t); }); })
        .def("next_trial", [](Cursor& c) { return c.call(orb_goto_next_trial); })
        .def("previous_trial", [](Cursor& c) { return c.call(orb_goto_previous_trial); })
        .def("trial_with_start_time", [](Cursor& c, unsigned t) { return c.call([&](_ORBFILE* f) { return orb_goto_trial_with_start_time(f, t); }); })
        .def("trial_with_end_time", [](Cursor& c, unsigned t) { return c.call([&](_ORBFILE* f) { return orb_goto_trial_with_end_time(f, t); }); })
        .def("set_bookmark", &Cursor::setBookmark)
        .def("goto_bookmark", [](Cursor& c, uint32_t id) { return c.bookmarkOp(id, orb_goto_bookmark); })
        .def("free_bookmark", [](Cursor& c, uint32_t id) { return c.bookmarkOp(id, orb_free_bookmark); })
        .def("next_bookmark", [](Cursor& c) { return c.call(orb_goto_next_bookmark); })
        .def("previous_bookmark", [](Cursor& c) { return c.call(orb_goto_previous_bookmark); })
        .def("element_index", [](Cursor& c) { return c.call(orb_get_element_index); })
        .def("element_count", [](Cursor& c) { return c.call(orb_get_element_count); })
        .def("sample_rate", [](Cursor& c) { return c.call(orb_get_sample_per_second); })
        .def("revision", [](Cursor& c) { return c.call(orb_get_revision); })
        .def("oculant_revision", [](Cursor& c) { return c.call(orb_get_oculant_revision); })
        .def("preamble", &Cursor::preamble);
}
