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

size_t typeSize(int type)
{
    switch (type) {
    case ORB_COLUMN_UINT8: return 1;
    case ORB_COLUMN_INT16:
    case ORB_COLUMN_UINT16: return 2;
    case ORB_COLUMN_INT32:
    case ORB_COLUMN_UINT32:
    case ORB_COLUMN_FLOAT32: return 4;
    case ORB_COLUMN_FLOAT64:
    case ORB_COLUMN_INT64:
    case ORB_COLUMN_UINT64: return 8;
    default: return 0;
    }
}

void Table::add(const char* name, const char* suffix, int type, Source source, size_t offset)
{
    Column c;
    c.name.append(name).append(suffix);
    c.type = type;
    c.source = source;
    c.offset = uint16_t(offset);
    c.size = uint8_t(typeSize(type));
    columns_.push_back(std::move(c));
}

void Table::addPair(const char* name, int type, Source source, size_t offset)
{
    const size_t size = typeSize(type);
    add(name, "_left", type, source, offset);
    add(name, "_right", type, source, offset + size);
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
    if (i >= columns_.size() || !out)
        return false;
    const Column& c = columns_[i];
    out->name = c.name.c_str();
    out->type = c.type;
    out->data = rows_ ? c.data : nullptr;
    return true;
}

namespace {

constexpr int U8 = ORB_COLUMN_UINT8;
constexpr int I16 = ORB_COLUMN_INT16;
constexpr int U16 = ORB_COLUMN_UINT16;
constexpr int I32 = ORB_COLUMN_INT32;
constexpr int U32 = ORB_COLUMN_UINT32;
constexpr int F32 = ORB_COLUMN_FLOAT32;
constexpr int U64 = ORB_COLUMN_UINT64;

void addPlace(Table& t, bool withTrial)
{
    t.add("index", I32, kFromPlace, offsetof(PlaceRow, index));
    t.add("block", I32, kFromPlace, offsetof(PlaceRow, block));
    if (withTrial)
        t.add("trial", I32, kFromPlace, offsetof(PlaceRow, trial));
}

} // namespace

#define PAIR(t, name, type, src, rec, member) t.addPair(name, type, src, offsetof(rec, member))
#define ONE(t, name, type, src, rec, member) t.add(name, type, src, offsetof(rec, member))

void layoutSamples(Table& t, int flags)
{
    const Source S = kFromSample;
    ONE(t, "time", U32, S, FSAMPLE, time);
    PAIR(t, "raw_x", F32, S, FSAMPLE, rawX);
    PAIR(t, "raw_y", F32, S, FSAMPLE, rawY);
    PAIR(t, "second_x", F32, S, FSAMPLE, secondX);
    PAIR(t, "second_y", F32, S, FSAMPLE, secondY);
    PAIR(t, "pupil_size", F32, S, FSAMPLE, pupilSize);
    PAIR(t, "gaze_x", F32, S, FSAMPLE, gazeX);
    PAIR(t, "gaze_y", F32, S, FSAMPLE, gazeY);
    ONE(t, "resolution_x", F32, S, FSAMPLE, resolutionX);
    ONE(t, "resolution_y", F32, S, FSAMPLE, resolutionY);
    if (flags & ORB_COLUMNS_VELOCITIES) {
        PAIR(t, "gaze_vel_x", F32, S, FSAMPLE, gazeVelX);
        PAIR(t, "gaze_vel_y", F32, S, FSAMPLE, gazeVelY);
        PAIR(t, "second_vel_x", F32, S, FSAMPLE, secondVelX);
        PAIR(t, "second_vel_y", F32, S, FSAMPLE, secondVelY);
        PAIR(t, "raw_vel_x", F32, S, FSAMPLE, rawVelX);
        PAIR(t, "raw_vel_y", F32, S, FSAMPLE, rawVelY);
        PAIR(t, "fast_gaze_vel_x", F32, S, FSAMPLE, fastGazeVelX);
        PAIR(t, "fast_gaze_vel_y", F32, S, FSAMPLE, fastGazeVelY);
        PAIR(t, "fast_second_vel_x", F32, S, FSAMPLE, fastSecondVelX);
        PAIR(t, "fast_second_vel_y", F32, S, FSAMPLE, fastSecondVelY);
        PAIR(t, "fast_raw_vel_x", F32, S, FSAMPLE, fastRawVelX);
        PAIR(t, "fast_raw_vel_y", F32, S, FSAMPLE, fastRawVelY);
    }
    const char* const extra[8] = {"extra_data_0", "extra_data_1", "extra_data_2", "extra_data_3",
                                  "extra_data_4", "extra_data_5", "extra_data_6", "extra_data_7"};
    for (size_t i = 0; i < 8; ++i)
        t.add(extra[i], U16, S, offsetof(FSAMPLE, extraData) + 2 * i);
    ONE(t, "flags", U16, S, FSAMPLE, flags);
    ONE(t, "input", U16, S, FSAMPLE, input);
    ONE(t, "buttons", U16, S, FSAMPLE, buttons);
    ONE(t, "extra_type", I16, S, FSAMPLE, extraType);
    ONE(t, "status", U16, S, FSAMPLE, status);
    if (flags & ORB_COLUMNS_CAMERA) {
        const Source C = kFromCamera;
        PAIR(t, "pupil_area", I32, C, CameraRow, pupilArea);
        PAIR(t, "cr_area", I32, C, CameraRow, crArea);
        PAIR(t, "cr2_area", I32, C, CameraRow, cr2Area);
        PAIR(t, "pupil_width", I32, C, CameraRow, pupilWidth);
        PAIR(t, "pupil_height", I32, C, CameraRow, pupilHeight);
        ONE(t, "cr_width", I32, C, CameraRow, crWidth);
        ONE(t, "cr_height", I32, C, CameraRow, crHeight);
        ONE(t, "window_x", I32, C, CameraRow, windowX);
        ONE(t, "window_y", I32, C, CameraRow, windowY);
        PAIR(t, "raw_pupil_x", F32, C, CameraRow, rawPupilX);
        PAIR(t, "raw_pupil_y", F32, C, CameraRow, rawPupilY);
        PAIR(t, "raw_cr_x", F32, C, CameraRow, rawCrX);
        PAIR(t, "raw_cr_y", F32, C, CameraRow, rawCrY);
        PAIR(t, "raw_cr2_x", F32, C, CameraRow, rawCr2X);
        PAIR(t, "raw_cr2_y", F32, C, CameraRow, rawCr2Y);
        PAIR(t, "pupil_cr_x", F32, C, CameraRow, pupilCrX);
        PAIR(t, "pupil_cr_y", F32, C, CameraRow, pupilCrY);
    }
    addPlace(t, true);
}

void layoutEvents(Table& t)
{
    const Source E = kFromEvent;
    ONE(t, "time", U32, E, FEVENT, time);
    ONE(t, "type", U16, E, FEVENT, type);
    ONE(t, "contents", U16, E, FEVENT, contents);
    ONE(t, "start_time", U32, E, FEVENT, startTime);
    ONE(t, "end_time", U32, E, FEVENT, endTime);
    ONE(t, "start_pos_x", F32, E, FEVENT, startPosX);
    ONE(t, "start_pos_y", F32, E, FEVENT, startPosY);
    ONE(t, "start_gaze_x", F32, E, FEVENT, startGazeX);
    ONE(t, "start_gaze_y", F32, E, FEVENT, startGazeY);
    ONE(t, "start_scalar", F32, E, FEVENT, startScalar);
    ONE(t, "end_pos_x", F32, E, FEVENT, endPosX);
    ONE(t, "end_pos_y", F32, E, FEVENT, endPosY);
    ONE(t, "end_gaze_x", F32, E, FEVENT, endGazeX);
    ONE(t, "end_gaze_y", F32, E, FEVENT, endGazeY);
    ONE(t, "end_scalar", F32, E, FEVENT, endScalar);
    ONE(t, "avg_pos_x", F32, E, FEVENT, avgPosX);
    ONE(t, "avg_pos_y", F32, E, FEVENT, avgPosY);
    ONE(t, "avg_gaze_x", F32, E, FEVENT, avgGazeX);
    ONE(t, "avg_gaze_y", F32, E, FEVENT, avgGazeY);
    ONE(t, "avg_scalar", F32, E, FEVENT, avgScalar);
    ONE(t, "avg_pupil", F32, E, FEVENT, avgPupil);
    ONE(t, "peak_pupil", F32, E, FEVENT, peakPupil);
    ONE(t, "start_pupil", F32, E, FEVENT, startPupil);
    ONE(t, "end_pupil", F32, E, FEVENT, endPupil);
    ONE(t, "start_res_x", F32, E, FEVENT, startResX);
    ONE(t, "end_res_x", F32, E, FEVENT, endResX);
    ONE(t, "start_res_y", F32, E, FEVENT, startResY);
    ONE(t, "end_res_y", F32, E, FEVENT, endResY);
    ONE(t, "eye", I16, E, FEVENT, eye);
    ONE(t, "aux0", U16, E, FEVENT, aux0);
    ONE(t, "block_flags", U16, E, FEVENT, blockFlags);
    ONE(t, "block_flags2", U16, E, FEVENT, blockFlags2);
    ONE(t, "block_option", U16, E, FEVENT, blockOption);
    ONE(t, "item_tag", U16, E, FEVENT, itemTag);
    ONE(t, "message_offset", U64, kFromText, TextRow, offset);
    ONE(t, "message_length", U32, kFromText, TextRow, length);
    addPlace(t, true);
}

void layoutBlocks(Table& t)
{
    const Source B = kFromBlock;
    ONE(t, "time", U32, B, Recording, time);
    ONE(t, "sample_rate", F32, B, Recording, sampleRate);
    ONE(t, "event_flags", U16, B, Recording, eventFlags);
    ONE(t, "sample_flags", U16, B, Recording, sampleFlags);
    ONE(t, "state", U8, B, Recording, state);
    ONE(t, "record_type", U8, B, Recording, recordType);
    ONE(t, "filter_flag", U8, B, Recording, filterFlag);
    ONE(t, "mode_flag", U8, B, Recording, modeFlag);
    ONE(t, "mode_level", U8, B, Recording, modeLevel);
    ONE(t, "block_option2", U8, B, Recording, blockOption2);
    ONE(t, "eyes", U8, B, Recording, eyes);
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

#undef PAIR
#undef ONE

} // namespace columns
