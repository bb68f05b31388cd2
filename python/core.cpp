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

// The element types of the columns: numpy's view of each, and its name.
struct ElementType {
    int type;
    nb::dlpack::dtype dtype;
    const char* name;
};

const ElementType& elementType(int type)
{
    static const ElementType types[] = {
        {ORB_COLUMN_UINT8, nb::dtype<uint8_t>(), "uint8"},
        {ORB_COLUMN_INT16, nb::dtype<int16_t>(), "int16"},
        {ORB_COLUMN_UINT16, nb::dtype<uint16_t>(), "uint16"},
        {ORB_COLUMN_INT32, nb::dtype<int32_t>(), "int32"},
        {ORB_COLUMN_UINT32, nb::dtype<uint32_t>(), "uint32"},
        {ORB_COLUMN_FLOAT32, nb::dtype<float>(), "float32"},
        {ORB_COLUMN_FLOAT64, nb::dtype<double>(), "float64"},
        {ORB_COLUMN_INT64, nb::dtype<int64_t>(), "int64"},
        {ORB_COLUMN_UINT64, nb::dtype<uint64_t>(), "uint64"},
    };
    for (const ElementType& t : types)
        if (t.type == type)
            return t;
    throw std::runtime_error("unknown column type " + std::to_string(type));
}

// A sample's time in milliseconds, with its half millisecond.
double sampleMilliseconds(uint32_t time, uint16_t flags)
{
    return double(time) + ((flags & ORB_SAMPLE_HALF_MS) ? 0.5 : 0.0);
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
                        v[r] = (v[r] == ORB_MISSING_POSITION || v[r] == ORB_MISSING_VALUE) ? nan : v[r];
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
                sampleTime_[r] = sampleMilliseconds(t[r], f[r]);
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
    // The line that says the read stopped before the end of its bytes
    // ("" when it read them all): what a successful read leaves as the last
    // error.
    std::string endedEarly() const { return endedEarly_; }
    std::string endedEarly_;

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
        nb::ndarray<nb::numpy> a(const_cast<void*>(data), 1, shape, owner, nullptr, elementType(type).dtype);
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
            out->endedEarly_ = orb_get_last_error();
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

template <class T>
T load(const void* base, size_t offset)
{
    T v;
    std::memcpy(&v, static_cast<const char*>(base) + offset, sizeof v);
    return v;
}

// Every value of `record` (ORB_RECORD_*) in the record at `rec`, by its
// column's name.
void putMembers(nb::dict& d, const void* rec, int record)
{
    int n = 0;
    const ORB_MEMBER* m = orb_record_members(record, &n);
    for (int i = 0; i < n; ++i) {
        const char* name = m[i].name;
        const size_t at = m[i].offset;
        switch (m[i].type) {
        case ORB_COLUMN_FLOAT32: d[name] = double(load<float>(rec, at)); break;
        case ORB_COLUMN_UINT32: d[name] = load<uint32_t>(rec, at); break;
        case ORB_COLUMN_INT32: d[name] = load<int32_t>(rec, at); break;
        case ORB_COLUMN_UINT16: d[name] = load<uint16_t>(rec, at); break;
        case ORB_COLUMN_INT16: d[name] = load<int16_t>(rec, at); break;
        case ORB_COLUMN_UINT8: d[name] = load<uint8_t>(rec, at); break;
        default: throw std::runtime_error(std::string("no conversion for member ") + name);
        }
    }
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
            ORB_CAMERA values;
            orb_get_camera_values(f, &d->fs, &values);
            nb::dict out;
            putMembers(out, &values, ORB_RECORD_CAMERA);
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
            putMembers(out, &d->fs, ORB_RECORD_SAMPLE);
            out["time"] = sampleMilliseconds(d->fs.time, d->fs.flags);
        } else if (code == RECORDING) {
            putMembers(out, &d->rec, ORB_RECORD_RECORDING);
        } else {
            putMembers(out, &d->fe, ORB_RECORD_EVENT);
            if (code == MESSAGE && d->fe.message) {
                const int most = int(sizeof d->fe.message->text);
                int n = d->fe.message->length;
                n = n < 0 ? 0 : n > most ? most : n;
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

// The facts of the public header the Python modules use, so that they are
// written there only.
void exportFacts(nb::module_& m)
{
    // Item-type codes, under the header's names.
#define ORB_CODE(name) m.attr(#name) = int(name);
    ORB_CODE(NO_MORE_ITEMS) ORB_CODE(SSPAN) ORB_CODE(ESPAN) ORB_CODE(SBLINK) ORB_CODE(EBLINK)
    ORB_CODE(SSACC) ORB_CODE(ESACC) ORB_CODE(SFIX) ORB_CODE(EFIX) ORB_CODE(POINT9) ORB_CODE(POINT10)
    ORB_CODE(SSAMPLES) ORB_CODE(ESAMPLES) ORB_CODE(SEVENTS) ORB_CODE(EEVENTS) ORB_CODE(MESSAGE)
    ORB_CODE(POINT25) ORB_CODE(POINT28) ORB_CODE(RECORDING) ORB_CODE(SAMPLE)
#undef ORB_CODE

    m.attr("MISSING_POSITION") = double(ORB_MISSING_POSITION);
    m.attr("MISSING_VALUE") = double(ORB_MISSING_VALUE);
    m.attr("MISSING_WORD") = int(ORB_MISSING_WORD);
    m.attr("PLACEHOLDER") = int(ORB_PLACEHOLDER);
    m.attr("SAMPLE_HALF_MS") = int(ORB_SAMPLE_HALF_MS);
    m.attr("SAMPLE_LEFT_EYE") = int(ORB_SAMPLE_LEFT_EYE);
    m.attr("SAMPLE_RIGHT_EYE") = int(ORB_SAMPLE_RIGHT_EYE);

    static const char* const eyes[2] = ORB_EYE_NAMES;
    m.attr("EYE_NAMES") = nb::make_tuple(eyes[0], eyes[1]);
    nb::dict blockEyes;
    blockEyes[nb::int_(ORB_EYES_LEFT)] = eyes[0];
    blockEyes[nb::int_(ORB_EYES_RIGHT)] = eyes[1];
    blockEyes[nb::int_(ORB_EYES_BOTH)] = "both";
    m.attr("BLOCK_EYES") = blockEyes;

    const std::string plain = ORB_MAGIC_PLAIN, compressed = ORB_MAGIC_COMPRESSED, end = ORB_PREAMBLE_END;
    m.attr("MAGIC_PLAIN") = nb::bytes(plain.data(), plain.size());
    m.attr("MAGIC_COMPRESSED") = nb::bytes(compressed.data(), compressed.size());
    m.attr("PREAMBLE_END") = nb::bytes(end.data(), end.size());
    m.attr("EMPTY_RECORDING") = nb::bytes(ORB_EMPTY_RECORDING, sizeof ORB_EMPTY_RECORDING - 1);

    // The names and numpy types of a table's columns for the flags of a
    // read, in the library's order.
    m.def(
        "column_layout",
        [](int table, int flags) {
            std::vector<std::pair<std::string, std::string>> out;
            ORB_COLUMN col;
            for (int i = 0; orb_columns_layout(table, flags, i, &col) == 0; ++i)
                out.emplace_back(col.name, elementType(col.type).name);
            return out;
        },
        "table"_a, "flags"_a = 0);
}

} // namespace

NB_MODULE(_core, m)
{
    m.doc() = "Native side of orbapi: the columnar reader and the cursor.";
    orb_set_log_function(logSink);
    // Arrow and polars tables made from a recording's columns keep them
    // alive, and the interpreter may end before those tables are collected:
    // the columns are then given back by the process's end, not leaked.
    nb::set_leak_warnings(false);

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
    exportFacts(m);
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
        .def_prop_ro("items", &Columns::items)
        .def_prop_ro("ended_early", &Columns::endedEarly);

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
