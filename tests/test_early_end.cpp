// A read that stops before the end of the bytes it was given says so in one
// line, which stays the opening thread's last error although the open
// succeeds; a read of the whole says nothing of the kind.
#include <gtest/gtest.h>

#include <zlib.h>

#include <string>
#include <thread>
#include <vector>

#include "InflatingStream.h"
#include "Internals.h"
#include "log.h"
#include "Recordings.h"
#include "orbapi.h"

using namespace orbtest;

namespace {

constexpr int kFirst = 40;  // samples before the break
constexpr int kSecond = 60; // after it
constexpr int kTolerant = 4;

// The break between the two blocks of a recording.
enum class Break { None, ZeroTag, TypeZeroEvent, DamagedItem };

struct Broken {
    OrbWriter w;
    size_t at = 0; // where the break begins, in the file or the inflated body
};

Broken recordingBrokenBy(Break kind, bool compressed)
{
    Broken b;
    if (compressed)
        b.w.magic = "NORVANE_LAB_HSPDFILE ZIP\r\n";
    b.w.compressed = compressed;
    addBlock(b.w, 1000, kFirst);
    b.at = b.w.body().size() + (compressed ? 0 : b.w.headerSize());
    switch (kind) {
    case Break::None:
        break;
    case Break::ZeroTag:
        b.w.raw({0, 0});
        break;
    case Break::TypeZeroEvent:
        b.w.add(EventItem(0, 0).start(1500));
        break;
    case Break::DamagedItem:
        b.w.add(EventItem(kMessageCode, -1).start(1500).messageRaw(5000, "trial 3 begins"));
        break;
    }
    addBlock(b.w, 2000, kSecond);
    return b;
}

std::string stoppedLine(size_t at, bool inflated, const char* reason, size_t unread)
{
    return "Reading stopped at byte " + std::to_string(at) + " of the " + (inflated ? "inflated body" : "file") +
           ": " + reason + " (" + std::to_string(unread) + " bytes not read)\n";
}

// The lines of the log that say a read stopped early.
Lines stoppedLines(const LogCapture& log) { return linesWith(log, "Reading stopped"); }

struct Case {
    Break kind;
    const char* reason;
    int options;
    size_t unreadAfterBreak; // bytes of the break itself that were read
};

const Case kCases[] = {
    {Break::ZeroTag, "an item tag of 0", 0, 2},
    {Break::TypeZeroEvent, "an event of type 0", 0, 0},
    {Break::DamagedItem, "a damaged item", kTolerant, 0},
};

int samplesWalked(_ORBFILE* f)
{
    int n = 0, code;
    while ((code = orb_get_next_data(f)) != NO_MORE_ITEMS)
        n += code == SAMPLE;
    return n;
}

} // namespace

// Each early end, from a file and from memory, plain and compressed, opened
// for the cursor and read into columns: one line, also the last error, and
// the items before the break handed out.
TEST(EarlyEnd, EachEndIsSaidOnceAndStaysTheLastError)
{
    for (const Case& c : kCases) {
        for (bool compressed : {false, true}) {
            const Broken b = recordingBrokenBy(c.kind, compressed);
            const Bytes bytes = b.w.build();
            const size_t total = compressed ? b.w.body().size() + 2 : bytes.size();
            const std::string expected =
                stoppedLine(b.at, compressed, c.reason, total - b.at - c.unreadAfterBreak);
            const std::string path = OrbWriter::writeFile(bytes);
            for (bool memory : {false, true}) {
                SCOPED_TRACE(std::string(c.reason) + (compressed ? ", compressed" : ", plain") +
                             (memory ? ", memory" : ", file"));
                LogCapture log;
                int err = 0;
                _ORBFILE* f = memory ? orb_open_memory(bytes.data(), bytes.size(), c.options, 1, 1, &err)
                                     : orb_open_file(path.c_str(), c.options, 1, 1, &err);
                ASSERT_NE(f, nullptr) << orb_get_last_error();
                EXPECT_EQ(stoppedLines(log), Lines{expected});
                EXPECT_EQ(orb_get_last_error(), expected);
                EXPECT_EQ(samplesWalked(f), kFirst);
                orb_close_file(f);

                log.clear();
                ORB_COLUMNS* cols =
                    memory ? orb_read_columns_memory(bytes.data(), bytes.size(), c.options, 1, 1, 0, nullptr,
                                                     nullptr, nullptr, nullptr, &err)
                           : orb_read_columns(path.c_str(), c.options, 1, 1, 0, nullptr, nullptr, nullptr, nullptr,
                                              &err);
                ASSERT_NE(cols, nullptr) << orb_get_last_error();
                EXPECT_EQ(stoppedLines(log), Lines{expected});
                EXPECT_EQ(orb_get_last_error(), expected);
                EXPECT_EQ(orb_columns_rows(cols, ORB_TABLE_SAMPLES), size_t(kFirst));
                orb_free_columns(cols);
            }
        }
    }
}

// Reads of the whole say nothing: a recording that ends with its tag of 0
// or without it (a tolerant scan), a gap the repair leaves open, an event of
// type 0 skipped by a tolerant scan or last in time; and a damaged item
// that fails a strict open is its failure, not an early end.
TEST(EarlyEnd, WholeReadsAndFailuresSayNothingOfIt)
{
    auto open = [](const OrbWriter& w, int options, int* walked) {
        LogCapture log;
        const Bytes bytes = w.build();
        int err = 0;
        _ORBFILE* f = orb_open_memory(bytes.data(), bytes.size(), options, 1, 1, &err);
        *walked = f ? samplesWalked(f) : -1;
        orb_close_file(f);
        EXPECT_EQ(stoppedLines(log), Lines{});
        return std::string(orb_get_last_error());
    };
    int walked = 0;
    for (bool compressed : {false, true}) {
        SCOPED_TRACE(compressed);
        Broken whole = recordingBrokenBy(Break::None, compressed);
        EXPECT_EQ(open(whole.w, 0, &walked), "");
        EXPECT_EQ(walked, kFirst + kSecond);
        whole.w.terminate = false;
        EXPECT_EQ(open(whole.w, kTolerant, &walked), "") << "every byte was read";
        EXPECT_EQ(walked, kFirst + kSecond);
    }

    const Broken skipped = recordingBrokenBy(Break::TypeZeroEvent, false);
    EXPECT_EQ(open(skipped.w, kTolerant, &walked), "");
    EXPECT_EQ(walked, kFirst + kSecond);

    // A gap too long for the repair's placeholders is left open, and the
    // samples after it are read.
    OrbWriter gap;
    startBlock(gap, 1000);
    addSampleRun(gap, 1000, 1010);
    addSampleRun(gap, 20001000, 20001010);
    endBlock(gap, 20001011);
    EXPECT_EQ(open(gap, 2, &walked), "");
    EXPECT_EQ(walked, 22);

    OrbWriter last;
    addBlock(last, 1000, kFirst);
    last.add(EventItem(0, 0).start(9000));
    EXPECT_EQ(open(last, 0, &walked), "");
    EXPECT_EQ(walked, kFirst);

    const Broken damaged = recordingBrokenBy(Break::DamagedItem, false);
    const std::string reason = open(damaged.w, 0, &walked);
    EXPECT_EQ(walked, -1);
    EXPECT_NE(reason.find("Error reading event"), std::string::npos) << reason;
}

// A tolerant scan that ends inside the last item reports the bytes of that
// item it left; ending on an item's last byte is a whole read.
TEST(EarlyEnd, ACutFileCountsTheBytesOfItsLastItem)
{
    OrbWriter w;
    w.terminate = false;
    addBlock(w, 1000, kFirst);
    const size_t at = w.headerSize() + w.body().size();
    w.add(sampleAt(1200));
    Bytes bytes = w.build();
    bytes.resize(bytes.size() - 3);
    LogCapture log;
    int err = 0;
    _ORBFILE* f = orb_open_memory(bytes.data(), bytes.size(), kTolerant, 1, 1, &err);
    ASSERT_NE(f, nullptr);
    const std::string expected = stoppedLine(at, false, "a damaged item", bytes.size() - at);
    EXPECT_EQ(stoppedLines(log), Lines{expected});
    EXPECT_EQ(orb_get_last_error(), expected);
    orb_close_file(f);
}

// A body cut at the inflating limit: its line is logged by the thread that
// reads up to the cut, or that asks for the data's end, never by the
// inflating thread, and once.  The end tells the compressed bytes left.
TEST(EarlyEnd, TheInflatingLimitIsToldOnTheReadingThread)
{
    Bytes body;
    for (int i = 0; i < 60000; ++i)
        put16(body, uint16_t(i * 7));
    uLongf zsize = compressBound(uLong(body.size()));
    Bytes z(zsize);
    ASSERT_EQ(compress2(z.data(), &zsize, body.data(), uLong(body.size()), 6), Z_OK);
    z.resize(zsize);
    const std::string path = OrbWriter::writeFile(z);
    const uint64_t limit = 50000;
    const std::string line = "Inflated body larger than 50000 bytes; the rest is not read \n";

    static std::vector<std::thread::id> threads;
    threads.clear();
    orb_set_log_function([](char*) { threads.push_back(std::this_thread::get_id()); });
    for (bool readToTheCut : {true, false}) {
        SCOPED_TRACE(readToTheCut);
        threads.clear();
        InputStream::DataEnd end;
        {
            LastErrorScope scope;
            auto stream = InflatingStream::open(std::make_unique<FileInputStream>(path.c_str()), limit);
            if (readToTheCut) {
                Bytes all(body.size());
                EXPECT_EQ(stream->getRawData(all.data(), int(all.size())), int(limit));
                EXPECT_EQ(threads.size(), 1u);
            }
            end = stream->dataEnd();
            stream->dataEnd();
            stream->seek(0);
            Bytes again(body.size());
            stream->getRawData(again.data(), int(again.size()));
        }
        EXPECT_EQ(orb_get_last_error(), line);
        EXPECT_EQ(threads, std::vector<std::thread::id>{std::this_thread::get_id()});
        EXPECT_EQ(end.size, int64_t(limit));
        EXPECT_TRUE(end.inflated);
        EXPECT_GT(end.sourceLeft, 0);
        EXPECT_LT(end.sourceLeft, int64_t(z.size()));
    }
    orb_set_log_function(nullptr);

    // Into memory: the same end.
    for (uint64_t memoryLimit : {limit, uint64_t(body.size())}) {
        LogCapture log;
        const auto memory = inflateToMemory(z.data(), z.size(), memoryLimit);
        const InputStream::DataEnd m = memory->dataEnd();
        EXPECT_EQ(m.size, int64_t(memoryLimit));
        EXPECT_TRUE(m.inflated);
        if (memoryLimit == limit) {
            EXPECT_GT(m.sourceLeft, 0);
            EXPECT_LT(m.sourceLeft, int64_t(z.size()));
        } else {
            EXPECT_EQ(m.sourceLeft, -1);
        }
    }
}

// A lasting line outlives success, and a failure still gives every line;
// nested scopes hand it on.
TEST(EarlyEnd, ALastingLineOutlivesSuccess)
{
    LogCapture log;
    {
        LastErrorScope outer;
        {
            LastErrorScope inner;
            orb_log("first\n");
            orb_log_lasting("stays\n");
            inner.succeeded();
        }
        EXPECT_STREQ(orb_get_last_error(), "stays\n");
        orb_log("then\n");
        outer.succeeded();
    }
    EXPECT_STREQ(orb_get_last_error(), "stays\n");
    {
        LastErrorScope failing;
        orb_log_lasting("stays\n");
        orb_log("why\n");
    }
    EXPECT_STREQ(orb_get_last_error(), "stays\nwhy\n");
    {
        LastErrorScope scope;
        scope.succeeded();
    }
    EXPECT_STREQ(orb_get_last_error(), "");
    EXPECT_EQ(log.lines(), (Lines{"first\n", "stays\n", "then\n", "stays\n", "why\n"}));
}
