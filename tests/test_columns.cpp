// Columnar reading: every column value is what a full cursor walk hands
// out, for every kind of recording and every open argument; failures,
// cancelling and reading from memory.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "ORBFile.h"
#include "Recordings.h"
#include "orbapi.h"

using namespace orbtest;

namespace {

// ---------------------------------------------------------------------------
// Recordings

struct Shape {
    double rate = 1000.0;
    int eyes = 3;                 // 1 left, 2 right, 3 both
    bool highSpeed = false;       // the tracker model of the high-speed filter
    uint32_t t0 = 10000;          // time of the first block
    int blocks = 2;
    int samples = 700;            // per block
    bool compressed = false;
    bool gaps = false;            // drop a few samples now and then
};

// Samples with every group and both camera encodings, fixations, saccades
// with blinks in them, messages that open and close trials; events are
// written a few samples after the time they describe, as a tracker does.
OrbWriter makeRecording(const Shape& s)
{
    OrbWriter w;
    w.compressed = s.compressed;
    if (s.compressed) w.magic = "NORVANE_LAB_HSPDFILE ZIP\n";
    w.preamble = {"VERSION: OCULANT MK 3\n", s.highSpeed ? "SOURCE: OCULANT HQ\n" : "SOURCE: OCULANT MK\n"};
    const uint16_t eyeBits = uint16_t((s.eyes & 1 ? kLeftEye : 0) | (s.eyes & 2 ? kRightEye : 0));
    const uint16_t flags = uint16_t(kSampleItem | eyeBits | kRawGroup | kSecondGroup | kGazeGroup |
                                    kResolutionGroup | kPupilGroup | kStatusWord | kInputWord | kButtonsWord |
                                    kExtraData);
    const int perMs = s.rate >= 2000.0 ? 2 : 1;
    const uint32_t step = perMs == 2 ? 1 : uint32_t(1000.0 / s.rate);
    uint32_t t = s.t0;
    for (int b = 0; b < s.blocks; ++b) {
        w.add(message(t - 3, "TRIALID " + std::to_string(b)));
        w.add(blockStart(SSAMPLES, t, s.rate, flags, 10));
        w.add(blockStart(SEVENTS, t, s.rate, 0, 10, 10, 0x0312,
                         eyeBits == kLeftEye ? kEventBlockLeftEye : kEventBlockBothEyes));
        std::vector<std::pair<int, EventItem>> later; // written at sample index
        uint32_t last = t;
        bool first = true;
        for (int i = 0; i < s.samples; ++i) {
            const uint32_t ti = t + uint32_t(i / perMs) * step;
            if (s.gaps && i % 150 == 77) continue;
            SampleItem x;
            x.flags = flags;
            if (first || i % 211 == 5) {
                x.flags |= kFullTime;
                x.time = ti;
                first = false;
            } else {
                x.step = uint8_t(ti - last);
            }
            const bool blink = i % 200 >= 120 && i % 200 < 140;
            for (int e = 0; e < 2; ++e) {
                x.raw[e][0] = int16_t(100 + i + e);
                x.raw[e][1] = int16_t(-50 - i);
                x.second[e][0] = int16_t(300 - i);
                x.second[e][1] = int16_t(20 + e);
                x.gaze[e][0] = blink ? int16_t(-32768) : int16_t(5000 + 13 * (i % 97) + e);
                x.gaze[e][1] = blink ? int16_t(-32768) : int16_t(3000 - 7 * (i % 53));
                // Every third sample uses the packed camera encoding.
                x.pupil[e] = blink ? int16_t(0) : i % 3 == 0 ? int16_t(-32000 + i % 300) : int16_t(900 + e);
            }
            x.res[0] = int16_t(380 + i % 5);
            x.res[1] = int16_t(390 - i % 4);
            x.status = uint16_t(i % 7);
            x.input = uint16_t(0x1234 + i);
            x.buttons = uint16_t(i % 2);
            x.extraType = i % 5 == 0 ? 196 : i % 5 == 1 ? 200 : 0x08;
            // The type byte's low four bits count the words.
            x.extra = {uint16_t(1200 + i), uint16_t(800 - i), uint16_t(1300 + i), 700, 1500, 60, 0x1E28, 0x0A14};
            x.extra.resize(size_t(x.extraType & 0x0F));
            w.add(x);
            last = ti;

            const uint32_t e0 = ti;
            for (int e = 0; e < 2; ++e) {
                if (!(s.eyes & (1 << e))) continue;
                if (i % 200 == 10) later.push_back({i + 6, EventItem(SFIX, e).start(e0).words(kFieldStartGaze, 5000, 3000)});
                if (i % 200 == 100)
                    later.push_back({i + 4, EventItem(EFIX, e).start(e0 - 90).end(e0).words(kFieldAvgGaze, 5100, 3100)
                                                .word(kFieldAvgPupil, 900).words(kFieldStartRes, 380, 390)
                                                .words(kFieldEndRes, 381, 391)});
                if (i % 200 == 110) later.push_back({i + 3, EventItem(SSACC, e).start(e0).words(kFieldStartGaze, 5000, 3000)});
                if (i % 200 == 120) later.push_back({i + 9, EventItem(SBLINK, e).start(e0)});
                if (i % 200 == 139) later.push_back({i + 2, EventItem(EBLINK, e).start(e0 - 19).end(e0)});
                if (i % 200 == 150)
                    later.push_back({i + 4, EventItem(ESACC, e).start(e0 - 40).end(e0).words(kFieldEndGaze, 5200, 3200)
                                                .word(kFieldAvgScalar, 3500).word(kFieldPeakPupil, 12)});
            }
            if (i == 40) w.add(message(ti, "stimulus on"));
            if (i == 333) w.add(EventItem(POINT9, 0).start(ti).words(kFieldStartPos, 7, -8));
            for (auto& [at, item] : later)
                if (at == i) w.add(item);
        }
        for (auto& [at, item] : later)
            if (at >= s.samples) w.add(item);
        w.add(message(last, "trial end " + std::to_string(b)));
        w.add(blockEnd(ESAMPLES, last + 1));
        w.add(blockEnd(EEVENTS, last + 1));
        t = last + 40;
    }
    return w;
}

std::string writeRecording(const Shape& s) { return makeRecording(s).write(); }

// The recording with its last `cut` bytes missing.
std::string truncated(const Shape& s, size_t cut)
{
    Bytes b = makeRecording(s).build();
    b.resize(b.size() - cut);
    return OrbWriter::writeFile(b);
}

// ---------------------------------------------------------------------------
// The expected columns: a cursor walk's records, laid out as the header
// describes the columns.

struct ColumnValues {
    std::string name;
    int type;
    std::vector<uint64_t> bits; // one element's bytes per row
};

class TableValues {
public:
    // A value for the current row; the first row also names the columns.
    template <class T>
    void put(const std::string& name, int type, T v)
    {
        static_assert(sizeof(T) <= 8, "element size");
        uint64_t b = 0;
        std::memcpy(&b, &v, sizeof v);
        if (rows_ == 0) cols_.push_back({name, type, {}});
        ASSERT_LT(at_, cols_.size());
        ASSERT_EQ(cols_[at_].name, name);
        cols_[at_++].bits.push_back(b);
    }
    template <class T>
    void pair(const std::string& name, int type, const T (&v)[2])
    {
        put(name + "_left", type, v[0]);
        put(name + "_right", type, v[1]);
    }
    void endRow() { ++rows_; at_ = 0; }

    size_t rows() const { return rows_; }
    const std::vector<ColumnValues>& columns() const { return cols_; }

private:
    std::vector<ColumnValues> cols_;
    size_t rows_ = 0;
    size_t at_ = 0;
};

constexpr int U8 = ORB_COLUMN_UINT8, I16 = ORB_COLUMN_INT16, U16 = ORB_COLUMN_UINT16,
              I32 = ORB_COLUMN_INT32, U32 = ORB_COLUMN_UINT32, F32 = ORB_COLUMN_FLOAT32,
              U64 = ORB_COLUMN_UINT64;


void putSample(TableValues& t, _ORBFILE* f, const FSAMPLE& fs, int flags)
{
    t.put("time", U32, fs.time);
    t.pair("raw_x", F32, fs.rawX);
    t.pair("raw_y", F32, fs.rawY);
    t.pair("second_x", F32, fs.secondX);
    t.pair("second_y", F32, fs.secondY);
    t.pair("pupil_size", F32, fs.pupilSize);
    t.pair("gaze_x", F32, fs.gazeX);
    t.pair("gaze_y", F32, fs.gazeY);
    t.put("resolution_x", F32, fs.resolutionX);
    t.put("resolution_y", F32, fs.resolutionY);
    if (flags & ORB_COLUMNS_VELOCITIES) {
        t.pair("gaze_vel_x", F32, fs.gazeVelX);
        t.pair("gaze_vel_y", F32, fs.gazeVelY);
        t.pair("second_vel_x", F32, fs.secondVelX);
        t.pair("second_vel_y", F32, fs.secondVelY);
        t.pair("raw_vel_x", F32, fs.rawVelX);
        t.pair("raw_vel_y", F32, fs.rawVelY);
        t.pair("fast_gaze_vel_x", F32, fs.fastGazeVelX);
        t.pair("fast_gaze_vel_y", F32, fs.fastGazeVelY);
        t.pair("fast_second_vel_x", F32, fs.fastSecondVelX);
        t.pair("fast_second_vel_y", F32, fs.fastSecondVelY);
        t.pair("fast_raw_vel_x", F32, fs.fastRawVelX);
        t.pair("fast_raw_vel_y", F32, fs.fastRawVelY);
    }
    for (int i = 0; i < 8; ++i) t.put("extra_data_" + std::to_string(i), U16, fs.extraData[i]);
    t.put("flags", U16, fs.flags);
    t.put("input", U16, fs.input);
    t.put("buttons", U16, fs.buttons);
    t.put("extra_type", I16, fs.extraType);
    t.put("status", U16, fs.status);
    if (!(flags & ORB_COLUMNS_CAMERA)) return;
    // The accessors on a copy of the sample.
    FSAMPLE c = fs;
    int v[8][2];
    float xy[8][2][2];
    for (int e = 0; e < 2; ++e) {
        v[0][e] = orb_get_uncorrected_pupil_area(f, &c, e);
        v[1][e] = orb_get_uncorrected_cr_area(f, &c, e);
        v[2][e] = orb_get_uncorrected_cr2_area(f, &c, e);
        int dim[2];
        orb_get_pupil_dimension(f, &c, e, dim);
        v[3][e] = dim[0];
        v[4][e] = dim[1];
        orb_get_uncorrected_raw_pupil(f, &c, e, xy[0][e]);
        orb_get_uncorrected_raw_cr(f, &c, e, xy[1][e]);
        orb_get_uncorrected_raw_cr2(f, &c, e, xy[2][e]);
        orb_get_pupil_cr(f, &c, e, xy[3][e]);
    }
    t.pair("pupil_area", I32, v[0]);
    t.pair("cr_area", I32, v[1]);
    t.pair("cr2_area", I32, v[2]);
    t.pair("pupil_width", I32, v[3]);
    t.pair("pupil_height", I32, v[4]);
    int wh[2];
    orb_get_cr_dimension(f, &c, wh);
    t.put("cr_width", I32, wh[0]);
    t.put("cr_height", I32, wh[1]);
    orb_get_window_position(f, &c, wh);
    t.put("window_x", I32, wh[0]);
    t.put("window_y", I32, wh[1]);
    const char* names[4] = {"raw_pupil", "raw_cr", "raw_cr2", "pupil_cr"};
    for (int k = 0; k < 4; ++k) {
        float x[2] = {xy[k][0][0], xy[k][1][0]};
        float y[2] = {xy[k][0][1], xy[k][1][1]};
        t.pair(std::string(names[k]) + "_x", F32, x);
        t.pair(std::string(names[k]) + "_y", F32, y);
    }
}

void putEvent(TableValues& t, const FEVENT& fe, uint64_t textOffset, uint32_t textLength)
{
    t.put("time", U32, fe.time);
    t.put("type", U16, fe.type);
    t.put("contents", U16, fe.contents);
    t.put("start_time", U32, fe.startTime);
    t.put("end_time", U32, fe.endTime);
    const std::pair<const char*, float> floats[] = {
        {"start_pos_x", fe.startPosX}, {"start_pos_y", fe.startPosY}, {"start_gaze_x", fe.startGazeX},
        {"start_gaze_y", fe.startGazeY}, {"start_scalar", fe.startScalar}, {"end_pos_x", fe.endPosX},
        {"end_pos_y", fe.endPosY}, {"end_gaze_x", fe.endGazeX}, {"end_gaze_y", fe.endGazeY},
        {"end_scalar", fe.endScalar}, {"avg_pos_x", fe.avgPosX}, {"avg_pos_y", fe.avgPosY},
        {"avg_gaze_x", fe.avgGazeX}, {"avg_gaze_y", fe.avgGazeY}, {"avg_scalar", fe.avgScalar},
        {"avg_pupil", fe.avgPupil}, {"peak_pupil", fe.peakPupil}, {"start_pupil", fe.startPupil},
        {"end_pupil", fe.endPupil}, {"start_res_x", fe.startResX}, {"end_res_x", fe.endResX},
        {"start_res_y", fe.startResY}, {"end_res_y", fe.endResY}};
    for (const auto& [name, v] : floats) t.put(name, F32, v);
    t.put("eye", I16, fe.eye);
    t.put("aux0", U16, fe.aux0);
    t.put("block_flags", U16, fe.blockFlags);
    t.put("block_flags2", U16, fe.blockFlags2);
    t.put("block_option", U16, fe.blockOption);
    t.put("item_tag", U16, fe.itemTag);
    t.put("message_offset", U64, textOffset);
    t.put("message_length", U32, textLength);
}

void putBlock(TableValues& t, const Recording& r)
{
    t.put("time", U32, r.time);
    t.put("sample_rate", F32, r.sampleRate);
    t.put("event_flags", U16, r.eventFlags);
    t.put("sample_flags", U16, r.sampleFlags);
    t.put("state", U8, r.state);
    t.put("record_type", U8, r.recordType);
    t.put("filter_flag", U8, r.filterFlag);
    t.put("mode_flag", U8, r.modeFlag);
    t.put("mode_level", U8, r.modeLevel);
    t.put("block_option2", U8, r.blockOption2);
    t.put("eyes", U8, r.eyes);
}

struct Walk {
    TableValues tables[4];
    std::string text;
    size_t items = 0;
    int lastIndex = -1; // of the last item handed out
};

struct ReadArgs {
    int consistency = 0;
    int events = 1;
    int samples = 1;
    int flags = ORB_COLUMNS_VELOCITIES | ORB_COLUMNS_CAMERA;
    const char* trialStart = nullptr;
    const char* trialEnd = nullptr;
};

// The cursor walk, with the trial list built first.
Walk walkWithCursor(const std::string& path, const ReadArgs& a)
{
    Walk w;
    int err = 0;
    _ORBFILE* f = orb_open_file(path.c_str(), a.consistency, a.events, a.samples, &err);
    if (!f) {
        ADD_FAILURE() << "the cursor cannot open " << path;
        return w;
    }
    std::string start = a.trialStart ? a.trialStart : "TRIALID";
    std::string end = a.trialEnd ? a.trialEnd : "";
    orb_set_trial_identifier(f, &start[0], a.trialEnd ? &end[0] : nullptr);
    const ORBFile& file = *reinterpret_cast<ORBFile*>(f);
    const std::vector<ORBTrial>& trials = file.trials;
    w.items = size_t(orb_get_element_count(f));

    // Blocks by their starts in delivery order; trials by index span.
    std::map<const Recording*, int> blockOf;
    int block = -1;
    int blocks = 0;
    auto trialOf = [&](int index) {
        int found = -1;
        for (size_t i = 0; i < trials.size(); ++i)
            if (int(trials[i].startIndex) <= index && index < int(trials[i].endIndex)) found = int(i);
        return found;
    };
    for (;;) {
        const int index = orb_get_element_index(f);
        const int code = orb_get_next_data(f);
        if (code == NO_MORE_ITEMS) break;
        const ALLF_DATA* d = orb_get_float_data(f);
        if (!d) continue;
        w.lastIndex = index;
        if (code == RECORDING) {
            if (d->rec.state == 1) {
                block = blocks++;
                blockOf[file.index.items[size_t(index)].rec] = block;
            }
            TableValues& t = w.tables[ORB_TABLE_BLOCKS];
            putBlock(t, d->rec);
            t.put("index", I32, index);
            t.put("block", I32, block);
            t.endRow();
            if (d->rec.state != 1) block = -1;
            continue;
        }
        TableValues& t = w.tables[code == SAMPLE ? ORB_TABLE_SAMPLES : ORB_TABLE_EVENTS];
        if (code == SAMPLE) {
            putSample(t, f, d->fs, a.flags);
        } else {
            const ORB_MESSAGE* m = d->fe.message;
            const uint32_t n = m ? uint32_t(std::max<int>(0, m->length)) : 0;
            putEvent(t, d->fe, w.text.size(), n);
            if (m) w.text.append(m->text, n);
        }
        t.put("index", I32, index);
        t.put("block", I32, block);
        t.put("trial", I32, trialOf(index));
        t.endRow();
    }
    for (int i = 0; i < orb_get_trial_count(f); ++i) {
        TRIAL tr{};
        orb_jump_to_trial(f, i);
        orb_get_trial_header(f, &tr);
        TableValues& t = w.tables[ORB_TABLE_TRIALS];
        t.put("block", I32, tr.rec && blockOf.count(tr.rec) ? blockOf[tr.rec] : -1);
        t.put("duration", U32, tr.trialWord);
        t.put("start_time", U32, tr.startTime);
        t.put("end_time", U32, tr.endTime);
        t.put("start_index", U32, uint32_t(orb_get_element_index(f)));
        t.put("end_index", U32, trials[size_t(i)].endIndex);
        t.endRow();
    }
    orb_close_file(f);
    return w;
}

ORB_COLUMNS* readColumns(const std::string& path, const ReadArgs& a, int* err = nullptr)
{
    return orb_read_columns(path.c_str(), a.consistency, a.events, a.samples, a.flags, a.trialStart,
                            a.trialEnd, nullptr, nullptr, err);
}

// Every column of every table, bit for bit, and the message texts.
void expectSameAsWalk(const ORB_COLUMNS* c, const Walk& w)
{
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(orb_columns_items(c), w.items);
    for (int table = ORB_TABLE_SAMPLES; table <= ORB_TABLE_TRIALS; ++table) {
        const TableValues& want = w.tables[table];
        const size_t rows = orb_columns_rows(c, table);
        ASSERT_EQ(rows, want.rows()) << "table " << table;
        if (rows == 0) continue;
        ASSERT_EQ(size_t(orb_columns_count(c, table)), want.columns().size()) << "table " << table;
        for (size_t i = 0; i < want.columns().size(); ++i) {
            const ColumnValues& v = want.columns()[i];
            ORB_COLUMN col{};
            ASSERT_EQ(orb_columns_column(c, table, int(i), &col), 0);
            ASSERT_STREQ(col.name, v.name.c_str()) << "table " << table << " column " << i;
            ASSERT_EQ(col.type, v.type) << v.name;
            const size_t size = orb_column_type_size(v.type);
            const auto* data = static_cast<const unsigned char*>(col.data);
            for (size_t r = 0; r < rows; ++r) {
                uint64_t got = 0;
                std::memcpy(&got, data + r * size, size);
                ASSERT_EQ(got, v.bits[r]) << "table " << table << " column " << v.name << " row " << r;
            }
        }
    }
    size_t size = 0;
    const char* text = orb_columns_text(c, &size);
    ASSERT_EQ(size, w.text.size());
    EXPECT_EQ(std::string(text ? text : "", size), w.text);
}

// Bit for bit the same columns.
void expectSameColumns(const ORB_COLUMNS* a, const ORB_COLUMNS* b)
{
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    for (int table = ORB_TABLE_SAMPLES; table <= ORB_TABLE_TRIALS; ++table) {
        const size_t rows = orb_columns_rows(a, table);
        ASSERT_EQ(rows, orb_columns_rows(b, table));
        ASSERT_EQ(orb_columns_count(a, table), orb_columns_count(b, table));
        for (int i = 0; i < orb_columns_count(a, table); ++i) {
            ORB_COLUMN x{}, y{};
            orb_columns_column(a, table, i, &x);
            orb_columns_column(b, table, i, &y);
            ASSERT_STREQ(x.name, y.name);
            const size_t size = orb_column_type_size(x.type);
            EXPECT_TRUE(rows == 0 || std::memcmp(x.data, y.data, rows * size) == 0) << x.name;
        }
    }
    size_t na = 0, nb = 0;
    const char* ta = orb_columns_text(a, &na);
    const char* tb = orb_columns_text(b, &nb);
    EXPECT_EQ(std::string(ta ? ta : "", na), std::string(tb ? tb : "", nb));
    EXPECT_STREQ(orb_columns_preamble(a), orb_columns_preamble(b));
}

void expectColumnsMatchCursor(const std::string& path, const ReadArgs& a)
{
    const Walk w = walkWithCursor(path, a);
    int err = 5;
    ORB_COLUMNS* c = readColumns(path, a, &err);
    EXPECT_EQ(err, 0);
    expectSameAsWalk(c, w);
    orb_free_columns(c);
}

// The open arguments that change what is read: each consistency mode, the
// time adjustment off, and events or samples left out; each with every
// option and with none (the reader takes the samples another way then).
template <class Check>
void forEveryOpenArgument(int tolerant, Check check)
{
    const int args[][3] = {{0, 1, 1}, {1, 1, 1}, {2, 1, 1}, {10, 1, 1}, {2, 0, 1}, {0, 1, 0}};
    for (const auto& [consistency, events, samples] : args)
        // With every option the samples come through the sample queue;
        // with none, from the pre-scan wherever it can take them.
        for (int flags : {ORB_COLUMNS_VELOCITIES | ORB_COLUMNS_CAMERA, 0}) {
            SCOPED_TRACE("consistency " + std::to_string(consistency | tolerant) + " events " +
                         std::to_string(events) + " samples " + std::to_string(samples) + " flags " +
                         std::to_string(flags));
            ReadArgs a;
            a.consistency = consistency | tolerant;
            a.events = events;
            a.samples = samples;
            a.flags = flags;
            check(a);
        }
}

void expectEveryReadMatchesCursor(const std::string& path, int tolerant = 0)
{
    forEveryOpenArgument(tolerant, [&](const ReadArgs& a) { expectColumnsMatchCursor(path, a); });
}

// Calls check with a recording shape of every rate, eye and filter model
// (gaps where both eyes are recorded).
template <class Check>
void forEveryRateEyeAndModel(Check check)
{
    for (double rate : {250.0, 500.0, 1000.0, 2000.0})
        for (int eyes : {1, 2, 3})
            for (bool highSpeed : {false, true}) {
                SCOPED_TRACE("rate " + std::to_string(rate) + " eyes " + std::to_string(eyes) +
                             (highSpeed ? " high-speed" : " standard"));
                Shape s;
                s.rate = rate;
                s.eyes = eyes;
                s.highSpeed = highSpeed;
                s.gaps = eyes == 3;
                check(s);
            }
}

void quiet(char*) {}

class Columns : public testing::Test {
protected:
    void SetUp() override { orb_set_log_function(quiet); }
    void TearDown() override { orb_set_log_function(nullptr); }
};

} // namespace

// ---------------------------------------------------------------------------

TEST_F(Columns, EveryRateEyeAndFilterModelReadsAsTheCursorWalks)
{
    forEveryRateEyeAndModel([](const Shape& s) { expectEveryReadMatchesCursor(writeRecording(s)); });
}

TEST_F(Columns, CompressedTimeOffsetAndTrialIdentifiers)
{
    Shape s;
    s.compressed = true;
    s.t0 = 300000000; // a clock that has run for days: times are shifted
    s.blocks = 3;
    const std::string path = writeRecording(s);
    expectEveryReadMatchesCursor(path);

    ReadArgs a;
    a.trialStart = "stimulus";
    a.trialEnd = "trial end";
    expectColumnsMatchCursor(path, a);
    a.trialStart = "NO SUCH MESSAGE";
    a.trialEnd = nullptr;
    expectColumnsMatchCursor(path, a);

    ORB_COLUMNS* c = readColumns(path, ReadArgs{});
    EXPECT_EQ(orb_columns_rows(c, ORB_TABLE_TRIALS), 3u);
    EXPECT_EQ(orb_columns_revision(c), 3);
    EXPECT_EQ(orb_columns_oculant_revision(c), 2);
    EXPECT_STREQ(orb_columns_preamble(c), "** VERSION: OCULANT MK 3\n** SOURCE: OCULANT MK\n");
    orb_free_columns(c);
}

TEST_F(Columns, WithoutTheOptionalGroupsTheOtherColumnsStayTheSame)
{
    const std::string path = writeRecording(Shape{});
    ReadArgs all;
    ORB_COLUMNS* full = readColumns(path, all);
    for (int flags : {0, ORB_COLUMNS_VELOCITIES, ORB_COLUMNS_CAMERA}) {
        ReadArgs a;
        a.flags = flags;
        expectColumnsMatchCursor(path, a);
        ORB_COLUMNS* c = readColumns(path, a);
        EXPECT_EQ(orb_columns_count(c, ORB_TABLE_SAMPLES),
                  orb_columns_count(full, ORB_TABLE_SAMPLES) - (flags & ORB_COLUMNS_VELOCITIES ? 0 : 24) -
                      (flags & ORB_COLUMNS_CAMERA ? 0 : 30));
        for (int i = 0; i < orb_columns_count(c, ORB_TABLE_SAMPLES); ++i) {
            ORB_COLUMN x{}, y{};
            orb_columns_column(c, ORB_TABLE_SAMPLES, i, &x);
            ASSERT_EQ(orb_columns_find(full, ORB_TABLE_SAMPLES, x.name, &y), 0) << x.name;
            EXPECT_EQ(std::memcmp(x.data, y.data, orb_columns_rows(c, ORB_TABLE_SAMPLES) * orb_column_type_size(x.type)), 0) << x.name;
        }
        orb_free_columns(c);
    }
    ORB_COLUMN col{};
    EXPECT_EQ(orb_columns_find(full, ORB_TABLE_EVENTS, "gaze_x_left", &col), -1);
    EXPECT_EQ(orb_columns_column(full, ORB_TABLE_BLOCKS, orb_columns_count(full, ORB_TABLE_BLOCKS), &col), -1);
    EXPECT_EQ(orb_columns_column(full, 7, 0, &col), -1);
    EXPECT_EQ(orb_columns_rows(full, -1), 0u);
    EXPECT_EQ(orb_columns_rows(nullptr, ORB_TABLE_SAMPLES), 0u);
    orb_free_columns(full);
    orb_free_columns(nullptr);
}

TEST_F(Columns, DamagedFilesEndWhereTheCursorsItemsEnd)
{
    for (bool compressed : {false, true}) {
        Shape s;
        s.compressed = compressed;
        s.gaps = true;
        const std::string whole = writeRecording(s);
        const Walk all = walkWithCursor(whole, ReadArgs{});
        for (size_t cut : {size_t(9), size_t(333), size_t(2500)}) {
            SCOPED_TRACE(std::string(compressed ? "compressed" : "plain") + " cut " + std::to_string(cut));
            const std::string path = truncated(s, cut);
            expectEveryReadMatchesCursor(path, 4);
            ReadArgs a;
            a.consistency = 4;
            const Walk w = walkWithCursor(path, a);
            ORB_COLUMNS* c = readColumns(path, a);
            const size_t rows = orb_columns_rows(c, ORB_TABLE_SAMPLES);
            EXPECT_GT(rows, 0u);
            EXPECT_LE(rows, all.tables[ORB_TABLE_SAMPLES].rows());
            if (cut > 100) {
                EXPECT_LT(rows, all.tables[ORB_TABLE_SAMPLES].rows());
            }
            ORB_COLUMN index{};
            ASSERT_EQ(orb_columns_find(c, ORB_TABLE_SAMPLES, "index", &index), 0);
            EXPECT_LE(static_cast<const int32_t*>(index.data)[rows - 1], w.lastIndex);
            orb_free_columns(c);
        }
    }
}

TEST_F(Columns, ARecordingWithoutItems)
{
    const std::string path = OrbWriter().write();
    expectEveryReadMatchesCursor(path);
    ORB_COLUMNS* c = readColumns(path, ReadArgs{});
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(orb_columns_items(c), 0u);
    ORB_COLUMN col{};
    ASSERT_EQ(orb_columns_find(c, ORB_TABLE_SAMPLES, "gaze_x_left", &col), 0);
    EXPECT_EQ(col.data, nullptr);
    EXPECT_EQ(orb_columns_text(c, nullptr), nullptr);
    orb_free_columns(c);
}

TEST_F(Columns, ARefusedFileGivesTheReasonTheLogGets)
{
    OrbWriter bad;
    bad.magic = "NOT AN ORB FILE\n";
    for (const std::string& path : {bad.write(), std::string("/no/such.orb")}) {
        std::string logged;
        {
            LogCapture log;
            int err = 0;
            EXPECT_EQ(orb_open_file(path.c_str(), 0, 1, 1, &err), nullptr);
            for (const std::string& l : log.lines()) logged += l;
        }
        orb_set_log_function(quiet);
        int err = 0;
        EXPECT_EQ(orb_read_columns(path.c_str(), 0, 1, 1, 0, nullptr, nullptr, nullptr, nullptr, &err), nullptr);
        EXPECT_EQ(err, -1);
        EXPECT_EQ(orb_get_last_error(), logged);
        EXPECT_NE(logged, "");
    }
    // A success clears it.
    ORB_COLUMNS* c = readColumns(writeRecording(Shape{}), ReadArgs{});
    EXPECT_STREQ(orb_get_last_error(), "");
    orb_free_columns(c);
}

TEST_F(Columns, ProgressRisesToOneAndCanCancel)
{
    Shape s;
    s.blocks = 40;
    s.samples = 4000;
    const std::string path = writeRecording(s);
    std::vector<double> seen;
    auto record = [](double fraction, void* user) {
        static_cast<std::vector<double>*>(user)->push_back(fraction);
        return 0;
    };
    int err = 5;
    ORB_COLUMNS* c = orb_read_columns(path.c_str(), 0, 1, 1, 0, nullptr, nullptr, record, &seen, &err);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(err, 0);
    ASSERT_GE(seen.size(), 2u);
    EXPECT_EQ(seen.back(), 1.0);
    for (size_t i = 1; i < seen.size(); ++i) EXPECT_LE(seen[i - 1], seen[i]);
    for (size_t i = 0; i + 1 < seen.size(); ++i) EXPECT_LT(seen[i], 1.0);
    orb_free_columns(c);

    for (int stopAt : {1, 2}) {
        int calls = stopAt;
        auto cancel = [](double, void* user) { return --*static_cast<int*>(user) == 0 ? 1 : 0; };
        EXPECT_EQ(orb_read_columns(path.c_str(), 0, 1, 1, 0, nullptr, nullptr, cancel, &calls, &err), nullptr);
        EXPECT_EQ(err, -2);
        EXPECT_STREQ(orb_get_last_error(), "Cancelled\n");
    }
}

TEST_F(Columns, FromMemoryAsFromTheFile)
{
    for (bool compressed : {false, true}) {
        Shape s;
        s.compressed = compressed;
        const std::string path = writeRecording(s);
        std::ifstream in(path, std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        for (int flags : {ORB_COLUMNS_VELOCITIES | ORB_COLUMNS_CAMERA, 0}) {
            ReadArgs args;
            args.flags = flags;
            ORB_COLUMNS* a = readColumns(path, args);
            int err = 5;
            ORB_COLUMNS* b = orb_read_columns_memory(bytes.data(), bytes.size(), 0, 1, 1, flags, nullptr, nullptr,
                                                     nullptr, nullptr, &err);
            EXPECT_EQ(err, 0);
            expectSameColumns(a, b);
            orb_free_columns(a);
            orb_free_columns(b);
        }
    }
    int err = 0;
    EXPECT_EQ(orb_read_columns_memory("NOT AN ORB FILE\n", 16, 0, 1, 1, 0, nullptr, nullptr, nullptr, nullptr, &err),
              nullptr);
    EXPECT_EQ(err, -1);
    EXPECT_STREQ(orb_get_last_error(), "Bad magic.  Corrupt orb file. \n\n");
}

// The samples of most recordings are decoded straight from the stream, in
// index order, instead of through the cursor's sample queue.  Recordings
// where the two could part: pupil sizes carried over a gap, blocks with
// different scales, a block start written after its first samples, samples
// before any block, steps instead of full times, three samples in one
// millisecond, an item that ends the walk early, and a block start without
// its rate.
TEST_F(Columns, SamplesStraightFromTheStreamOnlyWhereTheQueueWouldAgree)
{
    auto stepped = [](uint8_t step, uint16_t more = 0) {
        SampleItem s = sampleAt(0, more);
        s.flags = uint16_t(s.flags & ~kFullTime);
        s.step = step;
        return s;
    };
    auto withPupils = [](SampleItem s) {
        s.flags = uint16_t(s.flags | kPupilGroup);
        s.pupil[0] = int16_t(s.time % 700 + 100);
        s.pupil[1] = 450;
        return s;
    };
    std::vector<std::pair<std::string, OrbWriter>> cases;
    {
        OrbWriter w; // pupil sizes on some samples only, a dropout between
        startBlock(w, 1000);
        for (uint32_t t = 1000; t < 1300; ++t) w.add(withPupils(sampleAt(t)));
        addSampleRun(w, 1320, 1700);
        w.add(withPupils(sampleAt(1701)));
        endBlock(w, 1702);
        cases.emplace_back("pupils on some samples", w);
    }
    {
        OrbWriter w; // two blocks with different scales
        addBlock(w, 1000, 900, 1000.0);
        startBlock(w, 2500);
        addSampleRun(w, 2500, 3200);
        endBlock(w, 3201);
        cases.emplace_back("blocks with different scales", w);
    }
    {
        OrbWriter w; // a second block whose start is written after its first samples
        addBlock(w, 1000, 700, 1000.0);
        addSampleRun(w, 1800, 1805);
        startBlock(w, 1800);
        addSampleRun(w, 1806, 2400);
        endBlock(w, 2401);
        cases.emplace_back("block start written late", w);
    }
    {
        OrbWriter w; // samples before any block, then blocks of one scale
        addSampleRun(w, 900, 950);
        startBlock(w, 1000);
        addSampleRun(w, 1000, 1600);
        endBlock(w, 1601);
        cases.emplace_back("samples before any block", w);
    }
    {
        OrbWriter w; // time steps, a step of two, three samples in one millisecond
        startBlock(w, 1000);
        w.add(sampleAt(1000));
        for (int i = 0; i < 600; ++i) w.add(stepped(i == 300 ? 2 : 1));
        w.add(stepped(0));
        w.add(stepped(0));
        for (int i = 0; i < 300; ++i) w.add(stepped(1));
        endBlock(w, 2000);
        cases.emplace_back("steps and three samples in a millisecond", w);
    }
    {
        OrbWriter w; // an item of code 0 ends the cursor's walk, and the columns with it
        startBlock(w, 1000);
        addSampleRun(w, 1000, 1300);
        w.add(EventItem(0, 1).start(1300)); // a tag with an eye but no type
        addSampleRun(w, 1301, 1700);
        endBlock(w, 1701);
        cases.emplace_back("an item of code 0 amid the samples", w);
    }
    {
        OrbWriter w; // the second block start carries no rate: the rate of the first decides
        startBlock(w, 1000, 500.0);
        addSampleRun(w, 1000, 1400);
        endBlock(w, 1401);
        EventItem noRate = blockStart(SSAMPLES, 2000, 0.0, kSampleItem | kBothEyes | kGazeGroup, 1);
        w.add(noRate);
        w.add(blockStart(SEVENTS, 2000, 500.0, 0, 1, 10, 0x0312, kEventBlockBothEyes));
        addSampleRun(w, 2000, 2600);
        endBlock(w, 2601);
        cases.emplace_back("block start without its rate", w);
    }
    for (auto& [what, w] : cases) {
        SCOPED_TRACE(what);
        const std::string path = w.write();
        expectEveryReadMatchesCursor(path);
        expectEveryReadMatchesCursor(path, 4);
    }
}

// The pre-scan reserves rows for as many samples as a compressed body is
// guessed to hold; a body of identical samples inflates far beyond that
// guess: the samples then come through the queue after all.
TEST_F(Columns, ACompressedBodyBeyondItsGuessedSize)
{
    OrbWriter w;
    w.compressed = true;
    w.magic = "NORVANE_LAB_HSPDFILE ZIP\n";
    startBlock(w, 1000);
    w.add(sampleAt(1000));
    SampleItem same; // three bytes: a tag and a time step
    same.flags = uint16_t(kSampleItem | kBothEyes);
    same.step = 1;
    for (int i = 0; i < 200000; ++i)
        w.add(same);
    endBlock(w, 201001);
    const std::string path = w.write();
    ReadArgs a;
    a.flags = 0;
    expectColumnsMatchCursor(path, a);
    ORB_COLUMNS* c = readColumns(path, a);
    EXPECT_EQ(orb_columns_rows(c, ORB_TABLE_SAMPLES), 200001u);
    orb_free_columns(c);
}

// A recording whose samples start at time 0: the cursor decodes the first
// sample of a run against no expected time, so it steps on from whatever
// time the decoder was left with; the columns must hand out the same, read
// with or without velocities (which match the cursor as well, so every
// read of these bytes agrees with every other).  The plain case is one sample block start and
// three left-eye gaze samples of time steps 0, 1, 1.
TEST_F(Columns, SamplesFromTimeZeroReadAsTheCursorWalks)
{
    auto stepped = [](uint16_t eyes, uint8_t step, int16_t gaze) {
        SampleItem s;
        s.flags = uint16_t(kSampleItem | eyes | kGazeGroup);
        s.step = step;
        for (int e = 0; e < 2; ++e) s.gaze[e][0] = s.gaze[e][1] = int16_t(gaze + e);
        return s;
    };
    // One block from time 0: its rate, its eyes and the steps of its samples.
    auto fromZero = [&](double rate, uint16_t eyes, const std::vector<uint8_t>& steps) {
        OrbWriter w;
        w.add(blockStart(SSAMPLES, 0, rate, uint16_t(kSampleItem | eyes | kGazeGroup), 1));
        for (size_t i = 0; i < steps.size(); ++i) w.add(stepped(eyes, steps[i], int16_t(100 + i)));
        return w;
    };
    std::vector<std::pair<std::string, OrbWriter>> cases;
    cases.emplace_back("left eye, 1000 Hz", fromZero(1000.0, kLeftEye, {0, 1, 1}));
    cases.emplace_back("both eyes, 1000 Hz", fromZero(1000.0, kBothEyes, {0, 1, 1}));
    cases.emplace_back("left eye, 500 Hz", fromZero(500.0, kLeftEye, {0, 2, 2}));
    cases.emplace_back("both eyes, 2000 Hz", fromZero(2000.0, kBothEyes, {0, 0, 1, 0, 1, 0}));
    {
        // Runs beyond the sample queue: later runs start at other samples.
        std::vector<uint8_t> steps(1500, 1);
        steps[0] = 0;
        cases.emplace_back("many samples from time 0", fromZero(1000.0, kBothEyes, steps));
    }
    {
        OrbWriter w; // a sample at time 0 amid a block, after a gap in the clock
        startBlock(w, 40);
        addSampleRun(w, 40, 60);
        w.add(sampleAt(0));
        w.add(stepped(kBothEyes, 1, 300)).add(stepped(kBothEyes, 1, 301));
        addSampleRun(w, 70, 80);
        endBlock(w, 81);
        cases.emplace_back("a sample at time 0 amid a block", w);
    }
    for (auto& [what, w] : cases) {
        const std::string path = w.write();
        for (int consistency : {0, 1, 2})
            for (int flags : {0, ORB_COLUMNS_VELOCITIES, ORB_COLUMNS_VELOCITIES | ORB_COLUMNS_CAMERA}) {
                SCOPED_TRACE(what + ", mode " + std::to_string(consistency) + ", flags " + std::to_string(flags));
                ReadArgs a;
                a.consistency = consistency;
                a.flags = flags;
                expectColumnsMatchCursor(path, a);
            }
    }
}

// ---------------------------------------------------------------------------
// Chosen columns and time windows

namespace {

ORB_READ_OPTIONS optionsFor(const ReadArgs& a)
{
    ORB_READ_OPTIONS o;
    orb_read_options_init(&o);
    o.consistency = a.consistency;
    o.loadevents = a.events;
    o.loadsamples = a.samples;
    o.flags = a.flags;
    return o;
}

// A column of a read by name, as bytes of `rows` rows from `row`.
std::string bytesOf(const ORB_COLUMNS* c, int table, const char* name, size_t row, size_t rows)
{
    ORB_COLUMN col{};
    if (orb_columns_find(c, table, name, &col) != 0)
        return "(no column " + std::string(name) + ")";
    const size_t size = orb_column_type_size(col.type);
    if (rows == 0)
        return {};
    return std::string(static_cast<const char*>(col.data) + row * size, rows * size);
}

template <class T>
const T* valuesOf(const ORB_COLUMNS* c, int table, const char* name)
{
    ORB_COLUMN col{};
    return orb_columns_find(c, table, name, &col) == 0 ? static_cast<const T*>(col.data) : nullptr;
}

// The first row of `table` of `whole` whose index column is `index`.
size_t rowOfIndex(const ORB_COLUMNS* whole, int table, int32_t index)
{
    const int32_t* at = valuesOf<int32_t>(whole, table, "index");
    const size_t rows = orb_columns_rows(whole, table);
    return size_t(std::lower_bound(at, at + rows, index) - at);
}

// Every shown column of `part`'s table is a run of rows of the same column
// of `whole` from `from`, bit for bit, with the same name and type.
void expectRunOfWhole(const ORB_COLUMNS* part, const ORB_COLUMNS* whole, int table, size_t from)
{
    const size_t rows = orb_columns_rows(part, table);
    ASSERT_LE(from + rows, orb_columns_rows(whole, table)) << "table " << table;
    for (int i = 0; i < orb_columns_count(part, table); ++i) {
        ORB_COLUMN x{}, y{};
        orb_columns_column(part, table, i, &x);
        ASSERT_EQ(orb_columns_find(whole, table, x.name, &y), 0) << x.name;
        EXPECT_EQ(x.type, y.type) << x.name;
        if (std::string(x.name) == "message_offset")
            continue; // counts in the read's own text
        EXPECT_EQ(bytesOf(part, table, x.name, 0, rows), bytesOf(whole, table, x.name, from, rows))
            << "table " << table << " column " << x.name << " rows " << from << "+" << rows;
    }
    if (table == ORB_TABLE_EVENTS && rows > 0) {
        size_t n = 0, m = 0;
        const char* a = orb_columns_text(part, &n);
        const char* b = orb_columns_text(whole, &m);
        const uint64_t* offA = valuesOf<uint64_t>(part, table, "message_offset");
        const uint64_t* offB = valuesOf<uint64_t>(whole, table, "message_offset");
        const uint32_t* len = valuesOf<uint32_t>(part, table, "message_length");
        for (size_t r = 0; r < rows; ++r)
            EXPECT_EQ(std::string(a ? a + offA[r] : "", len[r]), std::string(b ? b + offB[from + r] : "", len[r]));
    }
}

// A window read against the whole read of the same arguments: its samples
// are the whole read's samples of times in [start, end), its other rows
// the whole read's rows of the index stretch its rows span, value for
// value; its trials those that start in the stretch.
void expectWindowOfWhole(const ORB_COLUMNS* part, const ORB_COLUMNS* whole, int64_t start, int64_t end)
{
    ASSERT_NE(part, nullptr);
    const uint32_t* time = valuesOf<uint32_t>(whole, ORB_TABLE_SAMPLES, "time");
    const size_t all = orb_columns_rows(whole, ORB_TABLE_SAMPLES);
    size_t first = 0, inside = 0;
    for (size_t r = 0; r < all; ++r)
        if (time[r] >= start && time[r] < end)
            inside++;
        else if (inside == 0)
            first = r + 1;
    EXPECT_EQ(orb_columns_rows(part, ORB_TABLE_SAMPLES), inside);
    expectRunOfWhole(part, whole, ORB_TABLE_SAMPLES, first);

    // The index stretch the window's rows span.
    int32_t lo = INT32_MAX, hi = -1;
    for (int table : {ORB_TABLE_SAMPLES, ORB_TABLE_EVENTS, ORB_TABLE_BLOCKS}) {
        const size_t rows = orb_columns_rows(part, table);
        const int32_t* index = valuesOf<int32_t>(part, table, "index");
        if (rows > 0) {
            lo = std::min(lo, index[0]);
            hi = std::max(hi, index[rows - 1]);
        }
    }
    for (int table : {ORB_TABLE_EVENTS, ORB_TABLE_BLOCKS}) {
        SCOPED_TRACE("table " + std::to_string(table));
        const size_t from = rowOfIndex(whole, table, lo);
        const size_t to = hi < 0 ? from : rowOfIndex(whole, table, hi + 1);
        EXPECT_EQ(orb_columns_rows(part, table), to - from);
        expectRunOfWhole(part, whole, table, from);
    }
    size_t trials = 0;
    const uint32_t* startIndex = valuesOf<uint32_t>(whole, ORB_TABLE_TRIALS, "start_index");
    size_t firstTrial = orb_columns_rows(whole, ORB_TABLE_TRIALS);
    for (size_t r = 0; r < orb_columns_rows(whole, ORB_TABLE_TRIALS); ++r)
        if (int64_t(startIndex[r]) >= lo && int64_t(startIndex[r]) <= hi) {
            firstTrial = std::min(firstTrial, r);
            trials++;
        }
    if (hi >= 0) {
        EXPECT_EQ(orb_columns_rows(part, ORB_TABLE_TRIALS), trials);
    }
    if (trials > 0)
        expectRunOfWhole(part, whole, ORB_TABLE_TRIALS, firstTrial);
    // Empty or not, the tables have the columns of the whole read.
    for (int table = ORB_TABLE_SAMPLES; table <= ORB_TABLE_TRIALS; ++table)
        EXPECT_EQ(orb_columns_count(part, table), orb_columns_count(whole, table));
}

// The windows worth reading of a recording whose whole read is `whole`:
// empty, one sample, the first and the last sample, across each block
// boundary and each gap of more than one period, before and after it all.
std::vector<std::pair<int64_t, int64_t>> windowsOf(const ORB_COLUMNS* whole)
{
    const uint32_t* time = valuesOf<uint32_t>(whole, ORB_TABLE_SAMPLES, "time");
    const int32_t* block = valuesOf<int32_t>(whole, ORB_TABLE_SAMPLES, "block");
    const size_t rows = orb_columns_rows(whole, ORB_TABLE_SAMPLES);
    std::vector<std::pair<int64_t, int64_t>> w = {{-5, 0}, {0, 0}, {-100, int64_t(1) << 40}};
    if (rows == 0)
        return w;
    const int64_t t0 = time[0], tn = time[rows - 1];
    w.insert(w.end(), {{t0 + 50, t0 + 50},
                       {t0 + 50, t0 + 51},
                       {t0, t0 + 1},
                       {t0 - 30, t0 + 3},
                       {tn, tn + 1},
                       {tn - 4, tn + 1000},
                       {tn + 1000, tn + 2000},
                       {t0 + 100, t0 + 333}});
    int64_t step = rows > 1 ? int64_t(time[1]) - int64_t(time[0]) : 1;
    step = std::max<int64_t>(step, 1);
    for (size_t r = 1; r < rows; ++r)
        if (block[r] != block[r - 1] || int64_t(time[r]) - int64_t(time[r - 1]) > step) {
            w.emplace_back(int64_t(time[r - 1]) - 3, int64_t(time[r]) + 3);
            if (w.size() > 12)
                break;
        }
    return w;
}

// Reads every window of windowsOf from the path and from one open handle,
// and a projection, and compares them with the whole read.
void expectWindowsAndColumnsOfWhole(const std::string& path, const ReadArgs& a)
{
    ORB_COLUMNS* whole = readColumns(path, a);
    ASSERT_NE(whole, nullptr);
    int err = 0;
    _ORBFILE* f = orb_open_file(path.c_str(), a.consistency, a.events, a.samples, &err);
    ASSERT_NE(f, nullptr);
    for (auto [start, end] : windowsOf(whole)) {
        SCOPED_TRACE("window " + std::to_string(start) + " to " + std::to_string(end));
        ORB_READ_OPTIONS o = optionsFor(a);
        o.window = 1;
        o.start = start;
        o.end = end;
        ORB_COLUMNS* fromPath = orb_read(path.c_str(), &o, &err);
        expectWindowOfWhole(fromPath, whole, start, end);
        const int at = orb_get_element_index(f);
        ORB_COLUMNS* fromHandle = orb_read_open(f, &o, &err);
        EXPECT_EQ(orb_get_element_index(f), at);
        expectSameColumns(fromHandle, fromPath);
        orb_free_columns(fromHandle);
        orb_free_columns(fromPath);
        orb_get_next_data(f); // the handle moves on between reads
    }
    orb_close_file(f);

    std::vector<const char*> names = {"pupil_size_right", "time", "gaze_x_left", "gaze_y_left", "trial", "block"};
    if (a.flags & ORB_COLUMNS_VELOCITIES)
        names.push_back("gaze_vel_x_right");
    if (a.flags & ORB_COLUMNS_CAMERA)
        names.push_back("pupil_area_left");
    names.push_back(nullptr);
    const char* const events[] = {"message_length", "message_offset", "time", "end_time", nullptr};
    const char* const none[] = {nullptr};
    ORB_READ_OPTIONS o = optionsFor(a);
    o.columns[ORB_TABLE_SAMPLES] = names.data();
    o.columns[ORB_TABLE_EVENTS] = events;
    o.columns[ORB_TABLE_BLOCKS] = none;
    ORB_COLUMNS* part = orb_read(path.c_str(), &o, &err);
    ASSERT_NE(part, nullptr);
    EXPECT_EQ(orb_columns_count(part, ORB_TABLE_SAMPLES), int(names.size() - 1));
    for (size_t i = 0; i + 1 < names.size(); ++i) {
        ORB_COLUMN col{};
        orb_columns_column(part, ORB_TABLE_SAMPLES, int(i), &col);
        EXPECT_STREQ(col.name, names[i]); // in the order asked for
    }
    EXPECT_EQ(orb_columns_count(part, ORB_TABLE_BLOCKS), 0);
    EXPECT_EQ(orb_columns_rows(part, ORB_TABLE_BLOCKS), orb_columns_rows(whole, ORB_TABLE_BLOCKS));
    for (int table = ORB_TABLE_SAMPLES; table <= ORB_TABLE_TRIALS; ++table) {
        EXPECT_EQ(orb_columns_rows(part, table), orb_columns_rows(whole, table));
        expectRunOfWhole(part, whole, table, 0);
    }
    orb_free_columns(part);

    // Without the columns the reader completes samples by (time, flags and
    // where the row lies), the others keep their values.
    const char* const bare[] = {"status", "gaze_x_right", nullptr};
    o = optionsFor(a);
    o.columns[ORB_TABLE_SAMPLES] = bare;
    part = orb_read(path.c_str(), &o, &err);
    ASSERT_NE(part, nullptr);
    EXPECT_EQ(orb_columns_count(part, ORB_TABLE_SAMPLES), 2);
    EXPECT_EQ(orb_columns_rows(part, ORB_TABLE_SAMPLES), orb_columns_rows(whole, ORB_TABLE_SAMPLES));
    expectRunOfWhole(part, whole, ORB_TABLE_SAMPLES, 0);
    orb_free_columns(part);
    orb_free_columns(whole);
}

void expectEveryWindowOfWhole(const std::string& path, int tolerant = 0)
{
    forEveryOpenArgument(tolerant, [&](const ReadArgs& a) { expectWindowsAndColumnsOfWhole(path, a); });
}

} // namespace

TEST_F(Columns, WindowsAndChosenColumnsAreRowsOfTheWholeRead)
{
    forEveryRateEyeAndModel([](Shape s) {
        s.blocks = 3;
        expectEveryWindowOfWhole(writeRecording(s));
    });
}

TEST_F(Columns, WindowsOfShiftedDamagedAndEmptyRecordings)
{
    Shape shifted;
    shifted.compressed = true;
    shifted.t0 = 300000000;
    shifted.eyes = 2;
    expectEveryWindowOfWhole(writeRecording(shifted));
    Shape damaged;
    damaged.gaps = true;
    expectEveryWindowOfWhole(truncated(damaged, 333), 4);
    expectEveryWindowOfWhole(OrbWriter().write());
}

TEST_F(Columns, BadOptionsAreRefusedWithTheirReason)
{
    const std::string path = writeRecording(Shape{});
    ORB_READ_OPTIONS o;
    orb_read_options_init(&o);
    int err = 0;

    const char* const unknown[] = {"time", "gaze_x", nullptr};
    o.columns[ORB_TABLE_SAMPLES] = unknown;
    EXPECT_EQ(orb_read(path.c_str(), &o, &err), nullptr);
    EXPECT_EQ(err, -1);
    std::string reason = orb_get_last_error();
    EXPECT_NE(reason.find("No column \"gaze_x\" in the samples table"), std::string::npos) << reason;
    EXPECT_NE(reason.find("gaze_x_left"), std::string::npos) << reason;
    EXPECT_NE(reason.find(" trial\n"), std::string::npos) << reason; // the last known one too

    const char* const velocity[] = {"gaze_vel_x_left", nullptr}; // without its flag
    o.columns[ORB_TABLE_SAMPLES] = velocity;
    EXPECT_EQ(orb_read(path.c_str(), &o, &err), nullptr);
    const char* const twice[] = {"time", "time", nullptr};
    o.columns[ORB_TABLE_SAMPLES] = twice;
    EXPECT_EQ(orb_read(path.c_str(), &o, &err), nullptr);
    EXPECT_NE(std::string(orb_get_last_error()).find("named twice"), std::string::npos);

    orb_read_options_init(&o);
    o.window = 1;
    o.start = 20000;
    o.end = 19999;
    _ORBFILE* f = orb_open_file(path.c_str(), 0, 1, 1, &err);
    EXPECT_EQ(orb_read_open(f, &o, &err), nullptr);
    EXPECT_EQ(err, -1);
    EXPECT_NE(std::string(orb_get_last_error()).find("after its end"), std::string::npos);
    orb_close_file(f);
    EXPECT_EQ(orb_read_open(nullptr, &o, &err), nullptr);
    EXPECT_EQ(err, -1);

    orb_read_options_init(&o);
    o.size = sizeof o - 1;
    EXPECT_EQ(orb_read(path.c_str(), &o, &err), nullptr);
    EXPECT_EQ(err, -1);
    // No options: everything, as orb_read_columns reads it.
    ORB_COLUMNS* a = orb_read(path.c_str(), nullptr, &err);
    ORB_COLUMNS* b = orb_read_columns(path.c_str(), 0, 1, 1, 0, nullptr, nullptr, nullptr, nullptr, &err);
    expectSameColumns(a, b);
    orb_free_columns(a);
    orb_free_columns(b);
}
