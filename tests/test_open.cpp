// Opening recordings: container forms, the preamble and what it tells.
#include <gtest/gtest.h>

#include "Internals.h"
#include "log.h"

using namespace orbtest;

TEST(Open, AcceptsTheSixMagicLines)
{
    for (const char* magic : {"NORVANE_LAB_HSPDFILE ZIP\n", "NORVANE_LAB_HSPDFILE ZIP\r\n",
                              "NORVANE_LAB_COMBFILE\n", "NORVANE_LAB_COMBFILE\r\n",
                              "NORVANE_LAB_HSPDFILE\n", "NORVANE_LAB_HSPDFILE\r\n"}) {
        OrbWriter w;
        w.magic = magic;
        w.compressed = std::string(magic).find("ZIP") != std::string::npos;
        EXPECT_EQ(openOrb(w)->decoder.combfile_status(), 0) << magic;
    }
    OrbWriter w;
    w.magic = "NORVANE_LAB_COMBFILE\n\n"; // the second line is the preamble
    EXPECT_EQ(openOrb(w)->decoder.combfile_status(), 0);
}

TEST(Open, RejectsNearMissesEmptyAndMissingFiles)
{
    const std::string bad = "Bad magic.  Corrupt orb file. \n";
    for (const char* magic : {"NORVANE_LAB_COMBFILE \n", "NORVANE_LAB_COMBFILE", "norvane_lab_combfile\n",
                              "NORVANE_LAB_HSPDFILE ZIP \n", "NORVANE_LAB_COMBFILEXXXXXXXXXXXXXXXX\n", "\n"}) {
        OrbWriter w;
        w.magic = magic;
        EXPECT_EQ(thrown([&] { openOrb(w); }), bad) << magic;
    }
    LogCapture log;
    const std::string empty = OrbWriter::writeFile({}), nul = OrbWriter::writeFile({'\0', '\n'});
    EXPECT_EQ(thrown([&] { ORBFile f(empty.c_str(), 0, true, true); }), bad);
    EXPECT_EQ(thrown([&] { ORBFile f(nul.c_str(), 0, true, true); }), "End of file Exception");
    EXPECT_EQ(log.lines().back(), "error reading orb file 6\n");
    EXPECT_EQ(thrown([] { ORBFile f("/no/such/file.orb", 0, true, true); }), "File Could not be opened!");
    EXPECT_EQ(log.lines().back(), "The file /no/such/file.orb could not be opened\n");
}

TEST(Open, PreambleTextIsKeptWithLinePrefixes)
{
    OrbWriter w;
    w.preamble = {"DATE: today\n", "** already starred\n"};
    auto f = openOrb(w);
    EXPECT_STREQ(f->preambleText.get(), "** DATE: today\n** ** already starred\n");
    EXPECT_EQ(f->preambleLength, 37);

    OrbWriter empty;
    empty.preamble = {};
    auto g = openOrb(empty);
    EXPECT_STREQ(g->preambleText.get(), "");
}

TEST(Open, VersionLineSetsTheRevision)
{
    struct Case {
        const char* line;
        int revision;
    } cases[] = {
        {"VERSION: OCULANT MK 3\n", 3},       {"VERSION: OCULANT MK 3.05\n", 3},
        {"VERSION: OCULANT MK 0\n", 1},       {"VERSION: OCULANT MK x\n", 1},
        {"VERSION: OCULANT MK\n", 0},         {"VERSION: OCULANT MK 12 extra\n", 12},
        {"version: OCULANT MK 4\n", 0},
    };
    for (const Case& c : cases) {
        OrbWriter w;
        w.preamble = {c.line};
        EXPECT_EQ(openOrb(w)->decoder.trackerRevision, c.revision) << c.line;
    }
}

TEST(Open, SourceLinesSetTheModelAndTheLastOneWins)
{
    OrbWriter w;
    w.preamble = {"SOURCE: OCULANT\n"};
    EXPECT_EQ(openOrb(w)->decoder.trackerModel, 1);
    w.preamble = {"SOURCE: OCULANT MK\n"};
    EXPECT_EQ(openOrb(w)->decoder.trackerModel, 2);
    w.preamble = {"SOURCE: OCULANT\n", "SOURCE: OCULANT HQ\n"};
    EXPECT_EQ(openOrb(w)->decoder.trackerModel, 3);
    w.preamble = {"SOURCE: OCULANT HQ\n", "SOURCE: OCULANT MK 2\n", "SOURCE: OCULANT XY\n"};
    EXPECT_EQ(openOrb(w)->decoder.trackerModel, 2);
}

TEST(Open, WriterTokenSetsTheTextEncoding)
{
    // Each file keeps its own: a file without the token says it does not
    // know, whatever was opened before it.
    OrbWriter w;
    w.preamble = {"CONVERTER: NVEB1.6.2 build\n"};
    auto utf8 = openOrb(w);
    EXPECT_EQ(utf8->utf8encoding, 1);
    w.preamble = {"CONVERTER: NVEB1.5\n"};
    EXPECT_EQ(openOrb(w)->utf8encoding, 0);
    w.preamble = {"no token here\n"};
    EXPECT_EQ(openOrb(w)->utf8encoding, -1);
    EXPECT_EQ(utf8->utf8encoding, 1);
}

TEST(Open, OverlongPreambleFails)
{
    const std::string tooLong = "Preamble longer than 1999 characters.  Corrupt orb file. \n";
    OrbWriter w;
    w.preamble.assign(100, std::string(18, 'p') + "\n"); // 100 x (3 + 19) = 2200
    EXPECT_EQ(thrown([&] { openOrb(w); }), tooLong);
    w.preamble.resize(90); // 1980
    EXPECT_EQ(thrown([&] { openOrb(w); }), "(no exception)");

    // "ENDP:\r\n" is an ordinary line; without a real end the preamble runs
    // into the size limit.
    w.endPreamble = false;
    w.terminate = false;
    w.preamble = {"ENDP:\r\n", "ENDP: \n"};
    EXPECT_EQ(thrown([&] { openOrb(w); }), tooLong);
}

TEST(Open, LongPreambleLinesAreSplitAt199Bytes)
{
    OrbWriter w;
    w.preamble = {std::string(250, 'a') + "\n"};
    auto f = openOrb(w);
    std::string expected = "** " + std::string(199, 'a') + "** " + std::string(51, 'a') + "\n";
    EXPECT_EQ(std::string(f->preambleText.get()), expected);
}

TEST(Open, CompressedBodyIsInflated)
{
    OrbWriter w;
    w.compressed = true;
    w.magic = "NORVANE_LAB_HSPDFILE ZIP\n";
    w.raw({0x12, 0x34, 0x56, 0x78});
    auto f = openOrb(w, 4); // the bytes are no valid item stream: scan tolerantly
    // The body is now the whole stream, from offset 0.
    f->decoder.stream->seek(0);
    EXPECT_EQ(f->decoder.stream->getInt(), 0x12345678u);
    EXPECT_EQ(f->decoder.trackerRevision, 3);

    // Not deflated at all: an empty stream.
    w.compressed = false;
    f = openOrb(w, 4);
    unsigned char b;
    f->decoder.stream->seek(0);
    EXPECT_EQ(f->decoder.stream->getRawData(&b, 1), 0);
}

TEST(Open, CompressedBodyThatEndsEarlyStillOpens)
{
    OrbWriter w;
    w.compressed = true;
    w.magic = "NORVANE_LAB_HSPDFILE ZIP\r\n";
    w.terminate = false;
    Bytes body;
    for (int i = 0; i < 20000; ++i) put16(body, uint16_t(i));
    w.raw(body);
    w.truncateBodyTo = (w.build().size() - 60) / 2; // about half of the deflated body
    // The open may end in the item scan; the container itself is not an error.
    auto f = openOrb(w, 4);
    f->decoder.stream->seek(0);
    EXPECT_EQ(f->decoder.stream->getWord(), 0);
    EXPECT_EQ(f->decoder.stream->getWord(), 1);
}

// Inflating stops once the body reaches the limit (2 GiB in use; smaller
// here), with one log line, keeping every byte before it.
TEST(Open, InflatingStopsAtTheLimit)
{
    Bytes body;
    for (int i = 0; i < 30000; ++i) put16(body, uint16_t(i * 7));
    uLongf zsize = compressBound(uLong(body.size()));
    Bytes z(zsize);
    ASSERT_EQ(compress2(z.data(), &zsize, body.data(), uLong(body.size()), 6), Z_OK);
    z.resize(zsize);

    auto readAll = [](InputStream& s) {
        Bytes out(70000);
        out.resize(size_t(s.getRawData(out.data(), int(out.size()))));
        return out;
    };
    for (size_t limit : {size_t(0), size_t(1), size_t(16384), size_t(40001), body.size(), body.size() + 1}) {
        SCOPED_TRACE(limit);
        const Bytes expected(body.begin(), body.begin() + long(std::min(limit, body.size())));
        const Lines line = limit < body.size()
                               ? Lines{"Inflated body larger than " + std::to_string(limit) +
                                       " bytes; the rest is not read \n"}
                               : Lines{};
        LogCapture log;
        auto memory = inflateToMemory(z.data(), z.size(), limit);
        EXPECT_EQ(readAll(*memory), expected);
        EXPECT_EQ(log.lines(), line);
    }
}

// Scopes nest: the inner one's lines reach the outer one, whose outcome is
// what remains; past the size limit only the last line is added.
TEST(LastErrorScope, NestsAndKeepsTheLastLineOfALongReason)
{
    LogCapture log;
    {
        LastErrorScope outer;
        orb_log("outer 1\n");
        {
            LastErrorScope inner;
            orb_log("inner\n");
        }
        EXPECT_STREQ(orb_get_last_error(), "inner\n");
        orb_log("outer 2\n");
    }
    EXPECT_STREQ(orb_get_last_error(), "outer 1\ninner\nouter 2\n");
    {
        LastErrorScope outer;
        {
            LastErrorScope inner;
            orb_log("inner\n");
        }
        outer.succeeded();
    }
    EXPECT_STREQ(orb_get_last_error(), "");

    log.clear();
    {
        LastErrorScope scope;
        const std::string line(99, 'x');
        for (size_t n = 0; n < LastErrorScope::kLimit / 100 + 10; ++n)
            orb_log("%s\n", line.c_str());
        orb_log("the reason\n");
    }
    const std::string reason = orb_get_last_error();
    EXPECT_LE(reason.size(), LastErrorScope::kLimit + 11);
    EXPECT_EQ(reason.substr(reason.size() - 11), "the reason\n");
    EXPECT_EQ(log.lines().size(), LastErrorScope::kLimit / 100 + 11) << "the sink hears every line";
}
