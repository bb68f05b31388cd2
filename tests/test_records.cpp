// The records as data (member tables and column layouts), the camera values
// in one call, and positions in the index through the function interface.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "Recordings.h"
#include "orbapi.h"

using namespace orbtest;

namespace {

struct Described {
    int record;
    size_t size; // of the record
    size_t covered; // bytes from 0 that the values must cover without a gap
};

const Described kRecords[] = {
    {ORB_RECORD_SAMPLE, sizeof(FSAMPLE), offsetof(FSAMPLE, status) + 2},
    {ORB_RECORD_EVENT, sizeof(FEVENT), offsetof(FEVENT, message)},
    {ORB_RECORD_RECORDING, sizeof(Recording), offsetof(Recording, eyes) + 1},
    {ORB_RECORD_CAMERA, sizeof(ORB_CAMERA), sizeof(ORB_CAMERA)},
};

std::vector<ORB_MEMBER> members(int record)
{
    int n = -1;
    const ORB_MEMBER* m = orb_record_members(record, &n);
    return std::vector<ORB_MEMBER>(m, m + n);
}

// An open recording, closed at the end of the scope.  Times unshifted
// (consistency bit 3) unless said otherwise.
struct File {
    explicit File(const OrbWriter& w, int consistency = 8) : path(w.write())
    {
        int err = 0;
        f = orb_open_file(path.c_str(), consistency, 1, 1, &err);
        if (!f)
            ADD_FAILURE() << "not opened: " << orb_get_last_error();
    }
    ~File() { orb_close_file(f); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    operator _ORBFILE*() const { return f; }

    const std::string path;
    _ORBFILE* f = nullptr;
};

// Two trials of two blocks, a message in each, and a sample at a half
// millisecond in the second.
OrbWriter twoTrials()
{
    OrbWriter w;
    for (int trial = 0; trial < 2; ++trial) {
        const uint32_t t0 = 1000 + 1000 * uint32_t(trial);
        w.add(message(t0 - 10, "TRIALID " + std::to_string(trial + 1) + "\n"));
        addBlock(w, t0, 12, 2000.0, [&](int i, uint32_t t) {
            if (i == 4) w.add(message(t, "stimulus shown\n"));
        });
    }
    return w;
}

} // namespace

TEST(Members, EveryValueOfEveryRecordOnceInOrder)
{
    for (const Described& d : kRecords) {
        SCOPED_TRACE(d.record);
        const std::vector<ORB_MEMBER> m = members(d.record);
        ASSERT_FALSE(m.empty());
        std::set<std::string> names;
        size_t at = 0;
        for (const ORB_MEMBER& v : m) {
            SCOPED_TRACE(v.name);
            EXPECT_TRUE(names.insert(v.name).second) << "a name twice";
            const size_t size = orb_column_type_size(v.type);
            ASSERT_GT(size, 0u);
            // Values follow each other in the record, padding aside.
            EXPECT_GE(v.offset, at);
            EXPECT_EQ(v.offset % size, 0u);
            EXPECT_LT(v.offset - at, size) << "a gap the size of a value";
            at = v.offset + size;
            EXPECT_LE(at, d.size);
            // An element is named after its eye or its number.
            std::string expected = v.stem;
            if (v.length == 2)
                expected += v.element == 0 ? "_left" : "_right";
            else if (v.length > 2)
                expected += "_" + std::to_string(v.element);
            EXPECT_EQ(expected, v.name);
            EXPECT_LT(v.element, v.length);
        }
        EXPECT_GE(at, d.covered) << "values missing at the end";
    }
    int n = 5;
    EXPECT_EQ(orb_record_members(7, &n), nullptr);
    EXPECT_EQ(n, 0);
    // The same table on every call.
    int a = 0, b = 0;
    EXPECT_EQ(orb_record_members(ORB_RECORD_SAMPLE, &a), orb_record_members(ORB_RECORD_SAMPLE, &b));
}

TEST(Members, ValuesReadBackWhatTheStructHolds)
{
    FSAMPLE s{};
    s.gazeY[1] = 12.5f;
    s.extraData[6] = 606;
    s.status = 77;
    for (const ORB_MEMBER& v : members(ORB_RECORD_SAMPLE)) {
        const char* at = reinterpret_cast<const char*>(&s) + v.offset;
        if (std::string(v.name) == "gaze_y_right") {
            float x;
            std::memcpy(&x, at, 4);
            EXPECT_EQ(x, 12.5f);
        } else if (std::string(v.name) == "extra_data_6" || std::string(v.name) == "status") {
            uint16_t w;
            std::memcpy(&w, at, 2);
            EXPECT_EQ(w, v.name[0] == 's' ? 77 : 606);
            EXPECT_EQ(v.type, ORB_COLUMN_UINT16);
        }
    }
    int velocities = 0;
    for (const ORB_MEMBER& v : members(ORB_RECORD_SAMPLE))
        velocities += v.flag == ORB_COLUMNS_VELOCITIES;
    EXPECT_EQ(velocities, 24);
    for (const ORB_MEMBER& v : members(ORB_RECORD_CAMERA))
        EXPECT_EQ(v.flag, ORB_COLUMNS_CAMERA) << v.name;
}

TEST(Layout, NamesAndTypesOfEveryReadWithoutReading)
{
    OrbWriter w = twoTrials();
    const std::string path = w.write();
    for (int flags = 0; flags < 4; ++flags) {
        int err = 0;
        ORB_COLUMNS* c = orb_read_columns(path.c_str(), 0, 1, 1, flags, nullptr, nullptr, nullptr, nullptr, &err);
        ASSERT_NE(c, nullptr);
        for (int table = ORB_TABLE_SAMPLES; table <= ORB_TABLE_TRIALS; ++table) {
            SCOPED_TRACE(std::to_string(flags) + " " + std::to_string(table));
            const int count = orb_columns_count(c, table);
            ORB_COLUMN laid{}, read{};
            for (int i = 0; i < count; ++i) {
                ASSERT_EQ(orb_columns_layout(table, flags, i, &laid), 0);
                ASSERT_EQ(orb_columns_column(c, table, i, &read), 0);
                EXPECT_STREQ(laid.name, read.name);
                EXPECT_EQ(laid.type, read.type);
                EXPECT_EQ(laid.data, nullptr);
            }
            EXPECT_EQ(orb_columns_layout(table, flags, count, &laid), -1);
        }
        orb_free_columns(c);
    }
    ORB_COLUMN col{};
    EXPECT_EQ(orb_columns_layout(4, 0, 0, &col), -1);
    EXPECT_EQ(orb_columns_layout(ORB_TABLE_SAMPLES, 0, -1, &col), -1);
    EXPECT_EQ(orb_columns_layout(ORB_TABLE_SAMPLES, 0, 0, nullptr), -1);
}

TEST(Camera, OneCallGivesWhatEachAccessorGives)
{
    OrbWriter w;
    addBlock(w, 1000, 10);
    File f(w, 0);
    // Both encodings of the camera values, with and without a second CR.
    FSAMPLE samples[3]{};
    const uint16_t words[3][8] = {{0, 0, 0, 33, 1234, 56, 0, 77},
                                  {0x1234, 0x5678, 0x9ABC, 0xDEF0, 0x1111, 0x2222, 0x3333, 0x4444},
                                  {100, 200, 300, 400, 500, 600, 700, 800}};
    const float pupils[3][2] = {{0.0f, 900.0f}, {-100.0f, -32000.0f}, {-2000.0f, 450.0f}};
    for (int k = 0; k < 3; ++k) {
        std::memcpy(samples[k].extraData, words[k], sizeof words[k]);
        samples[k].pupilSize[0] = pupils[k][0];
        samples[k].pupilSize[1] = pupils[k][1];
        samples[k].resolutionX = samples[k].resolutionY = 40.0f;
        samples[k].input = uint16_t(0x0A0B * (k + 1));
        samples[k].time = 1004;
    }
    for (FSAMPLE& s : samples) {
        ORB_CAMERA c;
        std::memset(&c, 0xEE, sizeof c);
        orb_get_camera_values(f, &s, &c);
        FSAMPLE copy = s;
        int dim[2];
        float xy[2];
        using Centre = void (*)(_ORBFILE*, FSAMPLE*, int, float*);
        const struct {
            Centre get;
            const float* x;
            const float* y;
        } centres[] = {
            {orb_get_uncorrected_raw_pupil, c.rawPupilX, c.rawPupilY},
            {orb_get_uncorrected_raw_cr, c.rawCrX, c.rawCrY},
            {orb_get_uncorrected_raw_cr2, c.rawCr2X, c.rawCr2Y},
            {[](_ORBFILE* h, FSAMPLE* p, int e, float* out) { orb_get_pupil_cr(h, p, e, out); }, c.pupilCrX,
             c.pupilCrY},
        };
        for (int e = 0; e < 2; ++e) {
            SCOPED_TRACE(e);
            EXPECT_EQ(c.pupilArea[e], orb_get_uncorrected_pupil_area(f, &copy, e));
            EXPECT_EQ(c.crArea[e], orb_get_uncorrected_cr_area(f, &copy, e));
            EXPECT_EQ(c.cr2Area[e], orb_get_uncorrected_cr2_area(f, &copy, e));
            orb_get_pupil_dimension(f, &copy, e, dim);
            EXPECT_EQ(c.pupilWidth[e], dim[0]);
            EXPECT_EQ(c.pupilHeight[e], dim[1]);
            for (const auto& centre : centres) {
                centre.get(f, &copy, e, xy);
                EXPECT_EQ(centre.x[e], xy[0]);
                EXPECT_EQ(centre.y[e], xy[1]);
            }
        }
        orb_get_cr_dimension(f, &copy, dim);
        EXPECT_EQ(c.crWidth, dim[0]);
        EXPECT_EQ(c.crHeight, dim[1]);
        orb_get_window_position(f, &copy, dim);
        EXPECT_EQ(c.windowX, dim[0]);
        EXPECT_EQ(c.windowY, dim[1]);
    }
}

TEST(Camera, TheRecordBufferItselfMayBeGiven)
{
    // The first call builds the trial list through the record buffer: the
    // values are still those of the sample given.
    OrbWriter w = twoTrials();
    File direct(w), copied(w);
    for (_ORBFILE* f : {direct.f, copied.f})
        while (orb_get_next_data(f) != SAMPLE) {
        }
    FSAMPLE copy = orb_get_float_data(copied)->fs;
    ORB_CAMERA a, b;
    orb_get_camera_values(direct, &orb_get_float_data(direct)->fs, &a);
    orb_get_camera_values(copied, &copy, &b);
    EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0);
}

TEST(Position, GotoIndexStepsOntoTheItemThere)
{
    File f(twoTrials());
    const int count = orb_get_element_count(f);
    ASSERT_GE(count, 40);
    for (int i : {count - 1, 0, 17, count / 2}) {
        SCOPED_TRACE(i);
        ASSERT_EQ(orb_goto_index(f, i), 0);
        EXPECT_EQ(orb_get_element_index(f), i);
        EXPECT_EQ(orb_get_next_data(f), orb_get_element_code(f, i, nullptr));
        EXPECT_EQ(orb_get_element_index(f), i + 1);
    }
    orb_goto_index(f, 5);
    for (int bad : {-1, count, count + 100}) {
        EXPECT_EQ(orb_goto_index(f, bad), -1);
        EXPECT_EQ(orb_get_element_index(f), 5) << "nothing changes";
    }
}

TEST(Position, CodesAndKeysOfTheIndexAgreeWithAWalk)
{
    // Time shift off (consistency bit 3): the records keep the file's times.
    File f(twoTrials());
    const int count = orb_get_element_count(f);
    int halves = 0, messages = 0;
    for (int i = 0; i < count; ++i) {
        uint64_t key = 0;
        const int code = orb_get_element_code(f, i, &key);
        ASSERT_EQ(orb_get_next_data(f), code) << i;
        const ALLF_DATA* d = orb_get_float_data(f);
        ASSERT_NE(d, nullptr);
        if (code == SAMPLE) {
            const bool half = d->fs.flags & ORB_SAMPLE_HALF_MS;
            halves += half;
            EXPECT_EQ(key, 2u * d->fs.time + (half ? 1 : 0)) << i;
        } else if (code == RECORDING) {
            EXPECT_EQ(key, 2u * d->rec.time) << i;
        } else {
            EXPECT_TRUE(ORB_IS_EVENT_CODE(code)) << code;
            messages += code == MESSAGE;
            EXPECT_EQ(key, 2u * d->fe.startTime) << i;
        }
    }
    EXPECT_GT(halves, 0) << "2000 Hz samples: every second at a half millisecond";
    EXPECT_EQ(messages, 4);
    uint64_t key = 99;
    EXPECT_EQ(orb_get_element_code(f, count, &key), -1);
    EXPECT_EQ(orb_get_element_code(f, -1, &key), -1);
    EXPECT_EQ(key, 99u);
}

TEST(Position, EventCodesAreThoseWithAnEventRecord)
{
    const int events[] = {SSPAN, ESPAN, SBLINK, EBLINK, SSACC, ESACC, SFIX, EFIX, POINT9, POINT10,
                          SSAMPLES, ESAMPLES, SEVENTS, EEVENTS, MESSAGE, POINT25, POINT28};
    std::set<int> expected(std::begin(events), std::end(events));
    for (int code = -3; code < 300; ++code)
        EXPECT_EQ(bool(ORB_IS_EVENT_CODE(code)), expected.count(code) == 1) << code;
}

TEST(Position, TrialSpansAreThoseOfTheTrialsTable)
{
    OrbWriter w = twoTrials();
    File f(w);
    uint32_t start = 7, end = 7;
    EXPECT_EQ(orb_get_trial_span(f, &start, &end), -1) << "no trial moved to yet";
    EXPECT_EQ(start, 7u);

    int err = 0;
    ORB_COLUMNS* c = orb_read_columns(f.path.c_str(), 8, 1, 1, 0, nullptr, nullptr, nullptr, nullptr, &err);
    ASSERT_NE(c, nullptr);
    ORB_COLUMN first{}, past{};
    ASSERT_EQ(orb_columns_find(c, ORB_TABLE_TRIALS, "start_index", &first), 0);
    ASSERT_EQ(orb_columns_find(c, ORB_TABLE_TRIALS, "end_index", &past), 0);
    const int trials = orb_get_trial_count(f);
    ASSERT_EQ(size_t(trials), orb_columns_rows(c, ORB_TABLE_TRIALS));
    ASSERT_EQ(trials, 2);
    for (int t = 0; t < trials; ++t) {
        ASSERT_EQ(orb_jump_to_trial(f, t), 0);
        ASSERT_EQ(orb_get_trial_span(f, &start, &end), 0);
        EXPECT_EQ(start, static_cast<const uint32_t*>(first.data)[t]);
        EXPECT_EQ(end, static_cast<const uint32_t*>(past.data)[t]);
        EXPECT_EQ(int(start), orb_get_element_index(f)) << "the trial starts where the move went";
        EXPECT_LT(start, end);
    }
    orb_free_columns(c);
    EXPECT_EQ(orb_get_trial_span(f, nullptr, &end), -1);
    EXPECT_EQ(orb_get_trial_span(f, &start, nullptr), -1);
}

TEST(Markers, TheEmptyRecordingOpensWithoutItems)
{
    int err = -5;
    _ORBFILE* f = orb_open_memory(ORB_EMPTY_RECORDING, sizeof ORB_EMPTY_RECORDING - 1, 0, 1, 1, &err);
    ASSERT_NE(f, nullptr) << orb_get_last_error();
    EXPECT_EQ(err, 0);
    EXPECT_EQ(orb_get_element_count(f), 0);
    EXPECT_EQ(orb_get_next_data(f), NO_MORE_ITEMS);
    EXPECT_EQ(orb_get_element_code(f, 0, nullptr), -1);
    EXPECT_EQ(orb_goto_index(f, 0), -1);
    orb_close_file(f);
    // Without its last two bytes it is no recording.
    f = orb_open_memory(ORB_EMPTY_RECORDING, sizeof ORB_EMPTY_RECORDING - 3, 0, 1, 1, &err);
    EXPECT_EQ(f, nullptr);
    orb_close_file(f);
}
