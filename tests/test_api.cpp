// The function interface: stepping, typed readers, rates, preamble, lookup
// by time, logging.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "Recordings.h"
#include "orbapi.h"

using namespace orbtest;
using Lines = std::vector<std::string>;

namespace {

_ORBFILE* openWriter(const OrbWriter& w, int consistency = 0)
{
    int err = 123;
    std::string path = w.write();
    _ORBFILE* f = orb_open_file(path.c_str(), consistency, 1, 1, &err);
    EXPECT_EQ(err, f ? 0 : -1);
    return f;
}

std::string joinedLines(const std::vector<std::string>& lines)
{
    std::string s;
    for (const std::string& l : lines) s += l;
    return s;
}

// Steps until the next item with this code; false at the end.
bool stepTo(_ORBFILE* f, int code)
{
    int c;
    while ((c = orb_get_next_data(f)) != NO_MORE_ITEMS)
        if (c == code) return true;
    return false;
}

} // namespace

TEST(Api, OpenFailureGivesNullAndLogsTheReason)
{
    LogCapture log;
    int err = 5;
    EXPECT_EQ(orb_open_file("/no/such.orb", 0, 1, 1, &err), nullptr);
    EXPECT_EQ(err, -1);
    EXPECT_TRUE(log.contains("File Could not be opened!\n"));

    OrbWriter bad;
    bad.magic = "NOT AN ORB FILE\n";
    EXPECT_EQ(openWriter(bad), nullptr);
    EXPECT_TRUE(log.contains("Bad magic.  Corrupt orb file. \n\n"));
    EXPECT_EQ(orb_close_file(nullptr), 0);
}

TEST(Api, SteppingAnEmptyFileAndPastTheEnd)
{
    OrbWriter empty;
    _ORBFILE* f = openWriter(empty);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(orb_get_element_count(f), 0);
    EXPECT_EQ(orb_get_next_data(f), NO_MORE_ITEMS);
    EXPECT_EQ(orb_get_element_index(f), 0);
    EXPECT_EQ(orb_get_trial_count(f), 0);
    orb_close_file(f);

    OrbWriter w;
    addBlock(w, 1000, 3);
    f = openWriter(w);
    int n = orb_get_element_count(f);
    ASSERT_GT(n, 0);
    while (orb_get_next_data(f) != NO_MORE_ITEMS) {}
    EXPECT_EQ(orb_get_element_index(f), n);
    EXPECT_EQ(orb_get_next_data(f), NO_MORE_ITEMS);
    EXPECT_EQ(orb_get_element_index(f), n);
    orb_close_file(f);
}

TEST(Api, TypedReadersMatchTheCurrentItem)
{
    OrbWriter w;
    addBlock(w, 1000, 3);
    _ORBFILE* f = openWriter(w);
    EXPECT_EQ(orb_get_sample_data(f), nullptr);
    EXPECT_EQ(orb_get_event_data(f), nullptr);
    EXPECT_EQ(orb_get_recording_data(f), nullptr);

    ASSERT_EQ(orb_get_next_data(f), RECORDING);
    EXPECT_EQ(orb_get_sample_data(f), nullptr);
    EXPECT_EQ(orb_get_event_data(f), nullptr);
    ALLF_DATA* d = orb_get_recording_data(f);
    ASSERT_NE(d, nullptr);
    // The casts test the word at offset 4, which in a genuine recording is
    // part of its rate: callers dispatch on the stepping code instead.
    EXPECT_EQ(orb_get_recording(d), nullptr);
    EXPECT_EQ(d->rec.time, 1000u);
    EXPECT_FLOAT_EQ(d->rec.sampleRate, 500.0f);
    EXPECT_EQ(d->rec.eyes, 3);

    ASSERT_TRUE(stepTo(f, SAMPLE));
    d = orb_get_sample_data(f);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(orb_get_sample(d), nullptr); // offset 4 is part of rawX[0]
    EXPECT_EQ(orb_get_event(d), &d->fe);
    EXPECT_EQ(d->fs.time, 1000u);
    EXPECT_FLOAT_EQ(d->fs.gazeX[0], 100.0f);
    EXPECT_EQ(orb_get_event_data(f), nullptr);
    orb_close_file(f);
}

TEST(Api, RecordCastsTestTheWordAtOffsetFour)
{
    ALLF_DATA d;
    std::memset(&d, 0, sizeof d);
    d.fe.type = 200;
    EXPECT_EQ(orb_get_event(&d), nullptr);
    EXPECT_NE(orb_get_sample(&d), nullptr);
    d.fe.type = 30;
    EXPECT_EQ(orb_get_event(&d), nullptr);
    EXPECT_NE(orb_get_recording(&d), nullptr);
    d.fe.type = 7;
    EXPECT_EQ(orb_get_event(&d), &d.fe);
    EXPECT_EQ(orb_get_sample(&d), nullptr);
    EXPECT_EQ(orb_get_recording(&d), nullptr);
}

TEST(Api, SampleRateAndIntervalFollowTheBlock)
{
    struct Case {
        double rate;
        int interval;
        double exact;
    } cases[] = {{500.0, 2, 2.0}, {2000.0, 0, 0.5}, {250.0, 4, 4.0}};
    for (const Case& c : cases) {
        OrbWriter w;
        addBlock(w, 1000, 4, c.rate);
        _ORBFILE* f = openWriter(w);
        EXPECT_EQ(orb_get_sample_per_second(f), 0.0f);
        EXPECT_EQ(orb_get_sample_interval(f), 0);
        ASSERT_EQ(orb_get_next_data(f), RECORDING);
        EXPECT_FLOAT_EQ(orb_get_sample_per_second(f), float(c.rate));
        EXPECT_EQ(orb_get_sample_interval(f), c.interval);
        EXPECT_DOUBLE_EQ(orb_get_sample_interval_ex(f), c.exact);
        EXPECT_EQ(get_filter_level_for_sample(f), 1); // mode word 0x0312
        ASSERT_TRUE(stepTo(f, RECORDING)); // the block end
        EXPECT_EQ(orb_get_sample_per_second(f), 0.0f);
        EXPECT_EQ(orb_get_sample_interval(f), 0);
        EXPECT_EQ(orb_get_sample_interval_ex(f), 0.0);
        orb_close_file(f);
    }
}

TEST(Api, PreambleTextAndFacts)
{
    OrbWriter w;
    w.preamble = {"VERSION: OCULANT MK 3\n", "SOURCE: OCULANT HQ\n"};
    _ORBFILE* f = openWriter(w);
    const std::string text = "** VERSION: OCULANT MK 3\n** SOURCE: OCULANT HQ\n";
    EXPECT_EQ(orb_get_preamble_text_length(f), int(text.size()) + 1);
    EXPECT_EQ(orb_get_revision(f), 3);
    EXPECT_EQ(orb_get_oculant_revision(f), 3);
    EXPECT_STREQ(orb_get_version(), "3.1 Linux Sep  2 2011");

    char one[4] = {'x', 'y', 'z', '\0'};
    orb_get_preamble_text(f, one, 1);
    EXPECT_EQ(one[0], '\0');
    EXPECT_EQ(one[1], 'y');

    char small[8];
    orb_get_preamble_text(f, small, sizeof small);
    EXPECT_STREQ(small, "** VERS");

    char large[500];
    std::memset(large, 'q', sizeof large);
    orb_get_preamble_text(f, large, sizeof large);
    EXPECT_EQ(std::string(large), text);
    orb_close_file(f);
}

TEST(Api, SampleCloseToTime)
{
    OrbWriter w;
    addBlock(w, 1000, 10);
    _ORBFILE* f = openWriter(w);
    orb_get_next_data(f);
    ALLF_DATA* d = orb_get_sample_close_to_time(f, 1004);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->fs.time, 1004u);
    EXPECT_EQ(orb_get_element_index(f), 1); // the cursor stays
    EXPECT_EQ(orb_get_sample_close_to_time(f, 1005), nullptr);
    // Times of 2^31 and more wrap when doubled.
    d = orb_get_sample_close_to_time(f, 0x80000000u + 1006);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->fs.time, 1006u);
    orb_close_file(f);
}

// Before the first orb_get_next_data nothing is read: the current record
// does not exist yet, and a lookup by time hands the buffer back unread.
TEST(Api, NothingIsReadBeforeTheFirstStep)
{
    OrbWriter empty;
    _ORBFILE* f = openWriter(empty);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(orb_get_float_data(f), nullptr);
    orb_close_file(f);

    OrbWriter w; // samples outside any block: reading one would warn
    addSamples(w, {1000, 1002, 1004, 1006});
    f = openWriter(w);
    LogCapture log;
    EXPECT_EQ(orb_get_float_data(f), nullptr);
    ALLF_DATA* d = orb_get_sample_close_to_time(f, 1004);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->fs.time, 0u) << "not decoded";
    EXPECT_EQ(log.lines(), Lines{"Unknown type 0\n"}) << "only the time adjustment speaks";
    EXPECT_EQ(orb_get_element_index(f), 0);

    // The first step makes both read.
    log.clear();
    EXPECT_EQ(orb_get_next_data(f), SAMPLE);
    ASSERT_NE(orb_get_float_data(f), nullptr);
    d = orb_get_sample_close_to_time(f, 1004);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->fs.time, 1004u);
    EXPECT_TRUE(log.contains("WARNING: ORB FILE MAY BE CORRUPTED. Samples 1004 found without start recording \n"));
    orb_close_file(f);
}

// The reason of a failed open: every line it logged, without a sink too.
TEST(LastError, HoldsTheLinesOfTheFailedOpenUntilTheNextOpen)
{
    LogCapture log;
    int err = 0;
    const std::string bad = "NORVANE_LAB_COMBFILE \n";
    EXPECT_EQ(orb_open_memory(bad.data(), bad.size(), 0, 1, 1, &err), nullptr);
    EXPECT_EQ(err, -1);
    EXPECT_STREQ(orb_get_last_error(), "Bad magic.  Corrupt orb file. \n\n");
    EXPECT_EQ(log.lines(), Lines{"Bad magic.  Corrupt orb file. \n\n"}) << "the sink still hears it";
    EXPECT_STREQ(orb_get_last_error(), "Bad magic.  Corrupt orb file. \n\n") << "reading it changes nothing";

    // Several lines, in order: a scan that ends in a damaged item.
    OrbWriter w;
    w.terminate = false;
    w.raw({0x00, 0x01, 0x00});
    const Bytes cut = w.build();
    log.clear();
    EXPECT_EQ(orb_open_memory(cut.data(), cut.size(), 0, 1, 1, &err), nullptr);
    EXPECT_EQ(orb_get_last_error(), joinedLines(log.lines()));
    EXPECT_GE(log.lines().size(), 2u);

    // A success clears it; so does an empty file that opens.
    OrbWriter good;
    addBlock(good, 100, 3);
    const Bytes bytes = good.build();
    _ORBFILE* f = orb_open_memory(bytes.data(), bytes.size(), 0, 1, 1, &err);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(err, 0);
    EXPECT_STREQ(orb_get_last_error(), "");
    orb_close_file(f);

    // Without a sink the lines go to standard output and are kept as well.
    orb_set_log_function(nullptr);
    testing::internal::CaptureStdout();
    EXPECT_EQ(orb_open_file("/no/such/dir/x.orb", 0, 1, 1, &err), nullptr);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "The file /no/such/dir/x.orb could not be opened\nFile Could not be opened!\n");
    EXPECT_EQ(orb_get_last_error(), out);

    EXPECT_EQ(orb_open_memory(nullptr, 5, 0, 1, 1, &err), nullptr);
    EXPECT_EQ(err, -1);
    EXPECT_STRNE(orb_get_last_error(), "");
    EXPECT_EQ(orb_get_last_error(), std::string("The memory image could not be read\nFile Could not be opened!\n"));
}

// The same bytes open alike from disk and from memory: one case here for
// each container form; the corpus test does it for every recording.
TEST(OpenMemory, GivesTheRecordsOfTheFile)
{
    for (bool compressed : {false, true}) {
        OrbWriter w;
        w.compressed = compressed;
        if (compressed) w.magic = "NORVANE_LAB_HSPDFILE ZIP\n";
        addBlock(w, 1000, 20, 500.0, [&](int i, uint32_t t) {
            if (i == 4) w.add(message(t, "TRIALID 7"));
        });
        const Bytes bytes = w.build();
        const std::string path = OrbWriter::writeFile(bytes);
        int err = 0;
        _ORBFILE* disk = orb_open_file(path.c_str(), 0, 1, 1, &err);
        _ORBFILE* memory = orb_open_memory(bytes.data(), bytes.size(), 0, 1, 1, &err);
        ASSERT_NE(disk, nullptr);
        ASSERT_NE(memory, nullptr);
        EXPECT_EQ(orb_get_element_count(memory), orb_get_element_count(disk));
        int code;
        while ((code = orb_get_next_data(disk)) != NO_MORE_ITEMS) {
            ASSERT_EQ(orb_get_next_data(memory), code);
            ALLF_DATA a = *orb_get_float_data(disk);
            ALLF_DATA b = *orb_get_float_data(memory);
            if (code == MESSAGE) {
                EXPECT_EQ(std::memcmp(a.fe.message, b.fe.message, sizeof(ORB_MESSAGE)), 0);
                a.fe.message = b.fe.message = nullptr;
            }
            EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0) << "item " << orb_get_element_index(disk);
        }
        EXPECT_EQ(orb_get_next_data(memory), NO_MORE_ITEMS);
        EXPECT_EQ(orb_get_trial_count(memory), 1);
        orb_close_file(disk);
        orb_close_file(memory);
    }
}

TEST(Log, SinkReceivesTheFormattedTextOnce)
{
    LogCapture log;
    char fmt[] = "value %s %d%%\n";
    EXPECT_EQ(print_log(fmt, "%d", 5), 0);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0], "value %d 5%\n");

    std::string longText(700, 'a');
    char sfmt[] = "%s";
    print_log(sfmt, longText.c_str());
    EXPECT_EQ(log.lines().back(), std::string(499, 'a'));
}

TEST(Log, StandardOutputFormatsTheTextAgain)
{
    orb_set_log_function(nullptr);
    testing::internal::CaptureStdout();
    char fmt[] = "100%%%% done %s\n";
    print_log(fmt, "%%");
    char plain[] = "plain\n";
    print_log(plain);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "100% done %\nplain\n");
}
