// Column layouts and storage of ORB_COLUMNS.
#include "Columns.h"
#include "base.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstddef>
#include <new>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace columns {

size_t sourceSize(Source source)
{
    switch (source) {
    case kFromSample: return sizeof(FSAMPLE);
    case kFromEvent: return sizeof(FEVENT);
    case kFromBlock: return sizeof(Recording);
    case kFromCamera: return sizeof(CameraRow);
    case kFromPlace: return sizeof(PlaceRow);
    case kFromText: return sizeof(TextRow);
    case kFromTrial: return sizeof(TrialRow);
    default: return 0;
    }
}

void Table::add(const char* name, int type, Source source, size_t offset)
{
    Column c;
    c.name = name;
    c.type = type;
    c.source = source;
    c.offset = uint16_t(offset);
    c.size = uint8_t(typeSize(type));
    columns_.push_back(std::move(c));
}

const Column* Table::find(const char* name) const
{
    for (const Column& c : columns_)
        if (c.name == name)
            return &c;
    return nullptr;
}

// Fails for a name that is not a column: the reason lists the known ones,
// on as many log lines as they take (a line holds at most 499 characters).
[[noreturn]] void Table::refuseUnknown(const char* name, const char* table) const
{
    std::string line = std::string("No column \"") + std::string(name).substr(0, 200) + "\" in the " + table +
                       " table of this read; its columns are:";
    for (size_t i = 0; i < columns_.size(); ++i) {
        const std::string next = " " + columns_[i].name + (i + 1 < columns_.size() ? "," : "");
        if (line.size() + next.size() > 400) {
            orb_log("%s\n", line.c_str());
            line.clear();
        }
        line += next;
    }
    throw ORBException("%s", line.c_str());
}

void Table::select(const char* const* names, const std::vector<std::string>& hidden, const char* table)
{
    std::vector<Column> kept;
    auto keep = [&](const char* name) {
        const Column* c = find(name);
        if (c)
            kept.push_back(*c);
        return c != nullptr;
    };
    auto taken = [&](const char* name) {
        return std::any_of(kept.begin(), kept.end(), [&](const Column& c) { return c.name == name; });
    };
    for (const char* const* name = names; *name; ++name) {
        if (taken(*name))
            throw ORBException("Column \"%.200s\" of the %s table named twice", *name, table);
        if (!keep(*name))
            refuseUnknown(*name, table);
    }
    const size_t shown = kept.size();
    for (const std::string& name : hidden)
        if (!taken(name.c_str()))
            keep(name.c_str());
    columns_ = std::move(kept);
    shown_ = shown;
}

namespace {

// Mapped blocks from this size on.
constexpr size_t kMapFrom = size_t(4) << 20;
constexpr size_t kColumnAlign = 64;

} // namespace

Storage::Storage(size_t bytes) : bytes_(bytes)
{
    if (bytes >= kMapFrom) {
        // Mapped as it is, its pages are made present by the first write to
        // each, or ahead of the writer by Table::prefault.
        void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (p == MAP_FAILED)
            throw std::bad_alloc();
        data_ = static_cast<unsigned char*>(p);
        mapped_ = true;
    } else if (bytes > 0) {
        data_ = static_cast<unsigned char*>(::operator new(bytes, std::align_val_t(kColumnAlign)));
    }
}

Storage::~Storage()
{
    if (!data_)
        return;
    if (mapped_)
        munmap(data_, bytes_);
    else
        ::operator delete(data_, std::align_val_t(kColumnAlign));
}

Storage& Storage::operator=(Storage&& other) noexcept
{
    if (this != &other) {
        Storage gone(std::move(*this));
        data_ = other.data_;
        bytes_ = other.bytes_;
        mapped_ = other.mapped_;
        other.data_ = nullptr;
    }
    return *this;
}

void Table::allocate(size_t capacity)
{
    auto span = [&](const Column& c) { return (capacity * c.size + kColumnAlign - 1) / kColumnAlign * kColumnAlign; };
    size_t total = 0;
    for (const Column& c : columns_)
        total += span(c);
    storage_ = Storage(total);
    groups_.clear();
    stages_.clear();
    unsigned char* at = storage_.data();
    for (Column& c : columns_) {
        c.data = capacity ? at : nullptr;
        at += span(c);
        auto g = std::find_if(groups_.begin(), groups_.end(),
                              [&](const Group& x) { return x.source == c.source && x.size == c.size; });
        if (g == groups_.end())
            g = groups_.insert(groups_.end(), Group{c.source, c.size, {}});
        g->copies.push_back(Copy{c.data, c.offset});
        if (std::none_of(stages_.begin(), stages_.end(), [&](const Stage& st) { return st.source == c.source; })) {
            const size_t size = sourceSize(c.source);
            stages_.push_back(Stage{c.source, size, std::make_unique<unsigned char[]>(kStageRows * size)});
        }
    }
    capacity_ = capacity;
    rows_ = 0;
    pending_ = 0;
    flushed_.store(0, std::memory_order_relaxed);
}

namespace {

#if defined(__SSE2__)
// Sixteen bytes of a column from a whole stage: the values of 16 / N rows,
// `stride` bytes apart in the stage, gathered in a register (not through
// memory, whose small stores a wide load could not take over).
template <size_t N>
inline __m128i gather16(const unsigned char* from, size_t stride);

template <>
inline __m128i gather16<1>(const unsigned char* from, size_t stride)
{
    alignas(16) unsigned char v[16];
    for (size_t r = 0; r < 16; ++r)
        v[r] = from[r * stride];
    return _mm_load_si128(reinterpret_cast<const __m128i*>(v));
}

template <>
inline __m128i gather16<2>(const unsigned char* from, size_t stride)
{
    auto at = [&](size_t r) {
        uint16_t x;
        __builtin_memcpy(&x, from + r * stride, 2);
        return short(x);
    };
    return _mm_setr_epi16(at(0), at(1), at(2), at(3), at(4), at(5), at(6), at(7));
}

template <>
inline __m128i gather16<4>(const unsigned char* from, size_t stride)
{
    auto at = [&](size_t r) {
        int32_t x;
        __builtin_memcpy(&x, from + r * stride, 4);
        return x;
    };
    return _mm_setr_epi32(at(0), at(1), at(2), at(3));
}

template <>
inline __m128i gather16<8>(const unsigned char* from, size_t stride)
{
    auto at = [&](size_t r) {
        long long x;
        __builtin_memcpy(&x, from + r * stride, 8);
        return x;
    };
    return _mm_set_epi64x(at(1), at(0));
}
#endif

} // namespace

template <size_t N>
void Table::write(const Group& g, const Stage& st)
{
    const size_t n = pending_;
    const size_t stride = st.size;
    for (const Copy& c : g.copies) {
        const unsigned char* from = st.rows.get() + c.offset;
        unsigned char* to = c.to + rows_ * N;
#if defined(__SSE2__)
        if (n == kStageRows) {
            // A whole stage fills whole, aligned cache lines of the column
            // (columns start on a line, and whole stages go before): they
            // are streamed to memory without being read first.
            constexpr size_t kPerStore = 16 / N;
            for (size_t r = 0; r < n; r += kPerStore)
                _mm_stream_si128(reinterpret_cast<__m128i*>(to + r * N), gather16<N>(from + r * stride, stride));
            continue;
        }
#endif
#pragma GCC unroll 8
        for (size_t r = 0; r < n; ++r)
            __builtin_memcpy(to + r * N, from + r * stride, N);
    }
}

void Table::flush()
{
    if (pending_ == 0)
        return;
    for (const Group& g : groups_) {
        const Stage& st = *std::find_if(stages_.begin(), stages_.end(), [&](const Stage& x) { return x.source == g.source; });
        switch (g.size) {
        case 4: write<4>(g, st); break;
        case 2: write<2>(g, st); break;
        case 1: write<1>(g, st); break;
        default: write<8>(g, st); break;
        }
    }
#if defined(__SSE2__)
    _mm_sfence(); // the streamed lines are in memory before anyone reads them
#endif
    rows_ += pending_;
    pending_ = 0;
    flushed_.store(rows_, std::memory_order_relaxed);
}

void Table::readRow(size_t row, Source source, void* record) const
{
    for (const Column& c : columns_)
        if (c.source == source && row < rows_)
            std::memcpy(static_cast<unsigned char*>(record) + c.offset, c.data + row * c.size, c.size);
}

void Table::writeRow(size_t row, Source source, const void* record)
{
    for (const Column& c : columns_)
        if (c.source == source && row < rows_)
            std::memcpy(c.data + row * c.size, static_cast<const unsigned char*>(record) + c.offset, c.size);
}

unsigned char* Table::columnData(const char* name) const
{
    for (const Column& c : columns_)
        if (c.name == name)
            return c.data;
    return nullptr;
}

bool Table::prefault(size_t from, size_t to) const
{
    if (!storage_.mapped() || from >= to)
        return false;
    to = std::min(to, capacity_);
    for (const Column& c : columns_)
        if (!pages::makePresent(c.data + from * c.size, c.data + to * c.size))
            return false;
    return true;
}

bool Table::describe(size_t i, ORB_COLUMN* out) const
{
    if (i >= shown() || !out)
        return false;
    const Column& c = columns_[i];
    out->name = c.name.c_str();
    out->type = c.type;
    out->data = rows_ ? c.data : nullptr;
    return true;
}

namespace {

constexpr int I32 = ORB_COLUMN_INT32;
constexpr int U32 = ORB_COLUMN_UINT32;
constexpr int U64 = ORB_COLUMN_UINT64;

// A column for each value of `record` whose flag is among `flags`.
void addMembers(Table& t, int record, Source source, int flags)
{
    int n = 0;
    const ORB_MEMBER* m = orb_record_members(record, &n);
    for (int i = 0; i < n; ++i)
        if ((m[i].flag & flags) == m[i].flag)
            t.add(m[i].name, m[i].type, source, m[i].offset);
}

void addPlace(Table& t, bool withTrial)
{
    t.add("index", I32, kFromPlace, offsetof(PlaceRow, index));
    t.add("block", I32, kFromPlace, offsetof(PlaceRow, block));
    if (withTrial)
        t.add("trial", I32, kFromPlace, offsetof(PlaceRow, trial));
}

} // namespace

#define ONE(t, name, type, src, rec, member) t.add(name, type, src, offsetof(rec, member))

void layoutSamples(Table& t, int flags)
{
    addMembers(t, ORB_RECORD_SAMPLE, kFromSample, flags);
    addMembers(t, ORB_RECORD_CAMERA, kFromCamera, flags);
    addPlace(t, true);
}

void layoutEvents(Table& t)
{
    addMembers(t, ORB_RECORD_EVENT, kFromEvent, 0);
    ONE(t, "message_offset", U64, kFromText, TextRow, offset);
    ONE(t, "message_length", U32, kFromText, TextRow, length);
    addPlace(t, true);
}

void layoutBlocks(Table& t)
{
    addMembers(t, ORB_RECORD_RECORDING, kFromBlock, 0);
    addPlace(t, false);
}

void layoutTrials(Table& t)
{
    const Source T = kFromTrial;
    ONE(t, "block", I32, T, TrialRow, block);
    ONE(t, "duration", U32, T, TrialRow, duration);
    ONE(t, "start_time", U32, T, TrialRow, startTime);
    ONE(t, "end_time", U32, T, TrialRow, endTime);
    ONE(t, "start_index", U32, T, TrialRow, startIndex);
    ONE(t, "end_index", U32, T, TrialRow, endIndex);
}

#undef ONE

} // namespace columns
