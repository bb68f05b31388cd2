// The byte stream: big-endian readers, their failures at end of file, line
// reads and seeks, on real files.
#include <gtest/gtest.h>

#include "Internals.h"
#include "NVIO.h"

using namespace orbtest;

namespace {

std::string fileWith(const Bytes& bytes) { return OrbWriter::writeFile(bytes); }
const std::string kEndOfFile = "End of file Exception";

} // namespace

TEST(Stream, TypedReadersAreBigEndian)
{
    std::string path = fileWith({0x12, 0x34, 0x56, 0x78, 0xFF, 0xFE, 0xFD, 0xFC, 0x9A});
    FileInputStream s(path.c_str());
    EXPECT_EQ(s.getWord(), 0x1234);
    EXPECT_EQ(s.getWord(), 0x5678);
    EXPECT_EQ(s.getInt(), 0xFFFEFDFCu);
    EXPECT_EQ(s.getByte(), 0x9A);
    EXPECT_EQ(s.position(), 9);
    EXPECT_FALSE(s.eof());

    FileInputStream t(path.c_str());
    EXPECT_EQ(t.getInt(), 0x12345678u);
}

TEST(Stream, ShortReadsLogTheirLineAndThrow)
{
    LogCapture log;
    std::string path = fileWith({0x01, 0x02, 0x03});
    FileInputStream s(path.c_str());
    s.getWord();
    EXPECT_EQ(thrown([&] { s.getWord(); }), kEndOfFile);
    EXPECT_EQ(log.lines().back(), "error reading orb file 7a r = 1 \n");
    EXPECT_TRUE(s.eof());
    EXPECT_EQ(thrown([&] { s.getWord(); }), kEndOfFile);
    EXPECT_EQ(log.lines().back(), "error reading orb file 7a r = 0 \n");
    EXPECT_EQ(thrown([&] { s.getByte(); }), kEndOfFile);
    EXPECT_EQ(log.lines().back(), "error reading orb file 11\n");
    EXPECT_EQ(thrown([&] { s.getInt(); }), kEndOfFile);
    EXPECT_EQ(log.lines().back(), "error reading orb file 9\n");
    // The partial word counted: 2 + 1.
    EXPECT_EQ(s.position(), 3);
}

TEST(Stream, GetStringAtEndOfFileLeavesTheBufferAndDoesNotThrow)
{
    std::string path = fileWith({'a', 'b', '\n'});
    FileInputStream s(path.c_str());
    char line[16];
    EXPECT_EQ(s.getString(line, sizeof line), 0);
    EXPECT_STREQ(line, "ab\n");
    std::strcpy(line, "kept");
    EXPECT_EQ(s.getString(line, sizeof line), 0);
    EXPECT_STREQ(line, "kept");
    EXPECT_TRUE(s.eof());
}

TEST(Stream, GetStringThrowsOnlyOnAnEmptyLine)
{
    LogCapture log;
    std::string path = fileWith({'\0', 'x', '\n'});
    FileInputStream s(path.c_str());
    char line[16];
    EXPECT_EQ(thrown([&] { s.getString(line, sizeof line); }), kEndOfFile);
    EXPECT_EQ(log.lines().back(), "error reading orb file 6\n");
}

TEST(Stream, LongLinesAreSplitAtTheLimit)
{
    std::string text(40, 'x');
    text.back() = '\n';
    std::string path = fileWith(Bytes(text.begin(), text.end()));
    FileInputStream s(path.c_str());
    char line[64];
    EXPECT_EQ(s.getTerminatedString(line, 35), 34);
    EXPECT_EQ(std::string(line), std::string(34, 'x'));
    EXPECT_EQ(s.getTerminatedString(line, 35), 6);
    EXPECT_STREQ(line, "xxxxx\n");
    EXPECT_FALSE(s.eof());
    EXPECT_EQ(s.getTerminatedString(line, 35), -1);
    EXPECT_TRUE(s.eof());
    EXPECT_EQ(s.position(), 40);

    // A last line without a newline sets end of file.
    FileInputStream t(fileWith({'a', 'b'}).c_str());
    EXPECT_EQ(t.getTerminatedString(line, sizeof line), 2);
    EXPECT_TRUE(t.eof());
}

TEST(Stream, SeekMovesAndClearsEndOfFile)
{
    Bytes bytes(600000);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i * 7);
    std::string path = fileWith(bytes);
    FileInputStream s(path.c_str());
    // Far jumps, back and forth, inside and outside the buffered data.
    for (long at : {599990L, 3L, 300001L, 300000L, 123457L, 599998L}) {
        EXPECT_EQ(s.seek(at), 0);
        EXPECT_EQ(s.position(), at);
        EXPECT_EQ(s.getByte(), bytes[size_t(at)]) << at;
    }
    EXPECT_EQ(thrown([&] { s.getWord(); }), kEndOfFile);
    EXPECT_TRUE(s.eof());
    EXPECT_EQ(s.seek(10), 0);
    EXPECT_FALSE(s.eof());
    EXPECT_EQ(s.getWord(), (bytes[10] << 8) | bytes[11]);
}

TEST(Stream, SeekPastTheEndSucceedsAndReadsNothing)
{
    std::string path = fileWith({1, 2, 3});
    FileInputStream s(path.c_str());
    EXPECT_EQ(s.seek(1000), 0);
    EXPECT_EQ(s.position(), 1000);
    EXPECT_FALSE(s.eof());
    unsigned char b[4];
    EXPECT_EQ(s.getRawData(b, 4), 0);
    EXPECT_TRUE(s.eof());
    // A failed seek still sets the counter.
    EXPECT_NE(s.seek(-5), 0);
    EXPECT_EQ(s.position(), -5);
}

TEST(Stream, MissingFileLogsAndThrows)
{
    LogCapture log;
    EXPECT_EQ(thrown([] { FileInputStream s("/nonexistent/dir/x.orb"); }), "File Could not be opened!");
    EXPECT_EQ(log.lines(), Lines{"The file /nonexistent/dir/x.orb could not be opened\n"});
}
