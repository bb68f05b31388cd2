// Opening recordings: container forms, the preamble and what it tells.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "ORBException.h"
#include "ORBFile.h"
#include "OrbWriter.h"

using namespace orbtest;

namespace {

std::unique_ptr<ORBFile> open(const OrbWriter& w, int options = 0)
{
    std::string path = w.write();
    return std::make_unique<ORBFile>(path.c_str(), options, true, true);
}

std::string openError(const OrbWriter& w)
{
    try {
        open(w);
    } catch (const ORBException& e) {
        return e.what();
    }
    return "(opened)";
}

} // namespace

TEST(Open, AcceptsTheSixMagicLines)
{
    for (const char* magic : {"NORVANE_LAB_HSPDFILE ZIP\n", "NORVANE_LAB_HSPDFILE ZIP\r\n",
                              "NORVANE_LAB_COMBFILE\n", "NORVANE_LAB_COMBFILE\r\n",
                              "NORVANE_LAB_HSPDFILE\n", "NORVANE_LAB_HSPDFILE\r\n"}) {
        OrbWriter w;
        w.magic = magic;
        w.compressed = std::string(magic).find("ZIP") != std::string::npos;
        auto f = open(w);
        EXPECT_EQ(f->combfile_status(), 0) << magic;
    }
}

TEST(Open, RejectsNearMisses)
{
    for (const char* magic : {"NORVANE_LAB_COMBFILE \n", "NORVANE_LAB_COMBFILE", "norvane_lab_combfile\n",
                              "NORVANE_LAB_COMBFILE\n\n" /* second line is the preamble */,
                              "NORVANE_LAB_HSPDFILE ZIP \n", "NORVANE_LAB_COMBFILEXXXXXXXXXXXXXXXX\n",
                              "\n"}) {
        OrbWriter w;
        w.magic = magic;
        std::string expected = std::string(magic) == "NORVANE_LAB_COMBFILE\n\n"
                                   ? "(opened)"
                                   : "Bad magic.  Corrupt orb file. \n";
        EXPECT_EQ(openError(w), expected) << magic;
    }
}

TEST(Open, EmptyFileIsBadMagic)
{
    std::string path = OrbWriter::writeFile({});
    try {
        ORBFile f(path.c_str(), 0, true, true);
        FAIL();
    } catch (const ORBException& e) {
        EXPECT_STREQ(e.what(), "Bad magic.  Corrupt orb file. \n");
    }
}

TEST(Open, EmptyFirstLineIsEndOfFile)
{
    LogCapture log;
    std::string path = OrbWriter::writeFile({'\0', '\n'});
    try {
        ORBFile f(path.c_str(), 0, true, true);
        FAIL();
    } catch (const ORBException& e) {
        EXPECT_STREQ(e.what(), "End of file Exception");
    }
    EXPECT_TRUE(log.contains("error reading orb file 6\n"));
}

TEST(Open, MissingFile)
{
    LogCapture log;
    try {
        ORBFile f("/no/such/file.orb", 0, true, true);
        FAIL();
    } catch (const ORBException& e) {
        EXPECT_STREQ(e.what(), "File Could not be opened!");
    }
    EXPECT_TRUE(log.contains("The file /no/such/file.orb could not be opened\n"));
}

TEST(Open, PreambleTextIsKeptWithLinePrefixes)
{
    OrbWriter w;
    w.preamble = {"DATE: today\n", "** already starred\n"};
    auto f = open(w);
    EXPECT_STREQ(f->preambleText.get(), "** DATE: today\n** ** already starred\n");
    EXPECT_EQ(f->preambleLength, 37);

    OrbWriter empty;
    empty.preamble = {};
    auto g = open(empty);
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
        EXPECT_EQ(open(w)->trackerRevision, c.revision) << c.line;
    }
}

TEST(Open, SourceLinesSetTheModelAndTheLastOneWins)
{
    OrbWriter w;
    w.preamble = {"SOURCE: OCULANT\n"};
    EXPECT_EQ(open(w)->trackerModel, 1);
    w.preamble = {"SOURCE: OCULANT MK\n"};
    EXPECT_EQ(open(w)->trackerModel, 2);
    w.preamble = {"SOURCE: OCULANT\n", "SOURCE: OCULANT HQ\n"};
    EXPECT_EQ(open(w)->trackerModel, 3);
    w.preamble = {"SOURCE: OCULANT HQ\n", "SOURCE: OCULANT MK 2\n", "SOURCE: OCULANT XY\n"};
    EXPECT_EQ(open(w)->trackerModel, 2);
}

TEST(Open, WriterTokenSetsTheTextEncoding)
{
    OrbWriter w;
    w.preamble = {"CONVERTER: NVEB1.6.2 build\n"};
    open(w);
    EXPECT_EQ(utf8encoding.load(), 1);
    w.preamble = {"CONVERTER: NVEB1.5\n"};
    open(w);
    EXPECT_EQ(utf8encoding.load(), 0);
    utf8encoding = 1;
    w.preamble = {"no token here\n"};
    open(w);
    EXPECT_EQ(utf8encoding.load(), 1);
    utf8encoding = 0;
}

TEST(Open, EndMarkerMustBeExact)
{
    // "ENDP:\r\n" is an ordinary line; without a real end the preamble runs
    // into the size limit and the open fails.
    OrbWriter w;
    w.endPreamble = false;
    w.terminate = false;
    w.preamble = {"ENDP:\r\n", "ENDP: \n"};
    EXPECT_EQ(openError(w), "Preamble longer than 1999 characters.  Corrupt orb file. \n");
}

TEST(Open, OverlongPreambleFails)
{
    OrbWriter w;
    w.preamble.assign(100, std::string(18, 'p') + "\n"); // 100 x (3 + 19) = 2200
    EXPECT_EQ(openError(w), "Preamble longer than 1999 characters.  Corrupt orb file. \n");

    OrbWriter fits;
    fits.preamble.assign(90, std::string(18, 'p') + "\n"); // 1980
    EXPECT_EQ(openError(fits), "(opened)");
}

TEST(Open, LongPreambleLinesAreSplitAt199Bytes)
{
    OrbWriter w;
    w.preamble = {std::string(250, 'a') + "\n"};
    auto f = open(w);
    std::string expected = "** " + std::string(199, 'a') + "** " + std::string(51, 'a') + "\n";
    EXPECT_EQ(std::string(f->preambleText.get()), expected);
}

TEST(Open, CompressedBodyIsInflated)
{
    OrbWriter w;
    w.compressed = true;
    w.magic = "NORVANE_LAB_HSPDFILE ZIP\n";
    w.raw({0x12, 0x34, 0x56, 0x78});
    auto f = open(w, 4); // the bytes are no valid item stream: scan tolerantly
    // The body is now the whole stream, from offset 0.
    f->stream->seek(0);
    EXPECT_EQ(f->stream->getInt(), 0x12345678u);
    EXPECT_EQ(f->trackerRevision, 3);
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
    size_t full = w.build().size();
    w.truncateBodyTo = (full - 60) / 2; // about half of the deflated body
    std::string path = w.write();
    // The open may end in the item scan; the container itself is not an error.
    try {
        ORBFile f(path.c_str(), 4, true, true);
        f.stream->seek(0);
        EXPECT_EQ(f.stream->getWord(), 0);
        EXPECT_EQ(f.stream->getWord(), 1);
    } catch (const ORBException& e) {
        FAIL() << e.what();
    }
}

TEST(Open, GarbageCompressedBodyGivesAnEmptyStream)
{
    OrbWriter w;
    w.magic = "NORVANE_LAB_HSPDFILE ZIP\n";
    w.raw({'n', 'o', 't', ' ', 'z', 'l', 'i', 'b'});
    std::string path = w.write();
    try {
        ORBFile f(path.c_str(), 4, true, true);
        unsigned char b;
        f.stream->seek(0);
        EXPECT_EQ(f.stream->getRawData(&b, 1), 0);
    } catch (const ORBException& e) {
        FAIL() << e.what();
    }
}
