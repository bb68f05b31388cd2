// Opening recordings: container forms, the preamble and what it tells.
#include <gtest/gtest.h>

#include "Internals.h"

using namespace orbtest;

TEST(Open, AcceptsTheSixMagicLines)
{
    for (const char* magic : {"NORVANE_LAB_HSPDFILE ZIP\n", "NORVANE_LAB_HSPDFILE ZIP\r\n",
                              "NORVANE_LAB_COMBFILE\n", "NORVANE_LAB_COMBFILE\r\n",
                              "NORVANE_LAB_HSPDFILE\n", "NORVANE_LAB_HSPDFILE\r\n"}) {
        OrbWriter w;
        w.magic = magic;
        w.compressed = std::string(magic).find("ZIP") != std::string::npos;
        EXPECT_EQ(openOrb(w)->combfile_status(), 0) << magic;
    }
    OrbWriter w;
    w.magic = "NORVANE_LAB_COMBFILE\n\n"; // the second line is the preamble
    EXPECT_EQ(openOrb(w)->combfile_status(), 0);
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
        EXPECT_EQ(openOrb(w)->trackerRevision, c.revision) << c.line;
    }
}

TEST(Open, SourceLinesSetTheModelAndTheLastOneWins)
{
    OrbWriter w;
    w.preamble = {"SOURCE: OCULANT\n"};
    EXPECT_EQ(openOrb(w)->trackerModel, 1);
    w.preamble = {"SOURCE: OCULANT MK\n"};
    EXPECT_EQ(openOrb(w)->trackerModel, 2);
    w.preamble = {"SOURCE: OCULANT\n", "SOURCE: OCULANT HQ\n"};
    EXPECT_EQ(openOrb(w)->trackerModel, 3);
    w.preamble = {"SOURCE: OCULANT HQ\n", "SOURCE: OCULANT MK 2\n", "SOURCE: OCULANT XY\n"};
    EXPECT_EQ(openOrb(w)->trackerModel, 2);
}

TEST(Open, WriterTokenSetsTheTextEncoding)
{
    OrbWriter w;
    w.preamble = {"CONVERTER: NVEB1.6.2 build\n"};
    openOrb(w);
    EXPECT_EQ(utf8encoding.load(), 1);
    w.preamble = {"CONVERTER: NVEB1.5\n"};
    openOrb(w);
    EXPECT_EQ(utf8encoding.load(), 0);
    utf8encoding = 1;
    w.preamble = {"no token here\n"};
    openOrb(w);
    EXPECT_EQ(utf8encoding.load(), 1);
    utf8encoding = 0;
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
    f->stream->seek(0);
    EXPECT_EQ(f->stream->getInt(), 0x12345678u);
    EXPECT_EQ(f->trackerRevision, 3);

    // Not deflated at all: an empty stream.
    w.compressed = false;
    f = openOrb(w, 4);
    unsigned char b;
    f->stream->seek(0);
    EXPECT_EQ(f->stream->getRawData(&b, 1), 0);
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
    f->stream->seek(0);
    EXPECT_EQ(f->stream->getWord(), 0);
    EXPECT_EQ(f->stream->getWord(), 1);
}
