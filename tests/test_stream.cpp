// The byte streams: big-endian readers, their failures at end of file, line
// reads and seeks, over a real file and over the same bytes in memory (every
// case runs on both kinds and must behave alike).
#include <gtest/gtest.h>

#include "Internals.h"
#include "NVIO.h"

using namespace orbtest;

namespace {

std::string fileWith(const Bytes& bytes) { return OrbWriter::writeFile(bytes); }
const std::string kEndOfFile = "End of file Exception";

struct OverFile {
    static std::unique_ptr<WindowedInputStream> over(const Bytes& bytes)
    {
        return std::make_unique<FileInputStream>(fileWith(bytes).c_str());
    }
};
struct OverMemory {
    static std::unique_ptr<WindowedInputStream> over(const Bytes& bytes)
    {
        std::unique_ptr<unsigned char[]> copy(new unsigned char[bytes.size() + 1]);
        std::copy(bytes.begin(), bytes.end(), copy.get());
        return std::make_unique<MemoryInputStream>(std::move(copy), bytes.size());
    }
};

template <class Kind>
class Stream : public testing::Test {};
using Kinds = testing::Types<OverFile, OverMemory>;
TYPED_TEST_SUITE(Stream, Kinds);

} // namespace

TYPED_TEST(Stream, TypedReadersAreBigEndian)
{
    const Bytes bytes = {0x12, 0x34, 0x56, 0x78, 0xFF, 0xFE, 0xFD, 0xFC, 0x9A};
    auto s = TypeParam::over(bytes);
    EXPECT_EQ(s->getWord(), 0x1234);
    EXPECT_EQ(s->getWord(), 0x5678);
    EXPECT_EQ(s->getInt(), 0xFFFEFDFCu);
    EXPECT_EQ(s->getByte(), 0x9A);
    EXPECT_EQ(s->position(), 9);
    EXPECT_FALSE(s->eof());

    auto t = TypeParam::over(bytes);
    EXPECT_EQ(t->getInt(), 0x12345678u);
}

TYPED_TEST(Stream, ShortReadsLogTheirLineAndThrow)
{
    LogCapture log;
    auto s = TypeParam::over(Bytes{0x01, 0x02, 0x03});
    s->getWord();
    EXPECT_EQ(thrown([&] { s->getWord(); }), kEndOfFile);
    EXPECT_EQ(log.lines().back(), "error reading orb file 7a r = 1 \n");
    EXPECT_TRUE(s->eof());
    EXPECT_EQ(thrown([&] { s->getWord(); }), kEndOfFile);
    EXPECT_EQ(log.lines().back(), "error reading orb file 7a r = 0 \n");
    EXPECT_EQ(thrown([&] { s->getByte(); }), kEndOfFile);
    EXPECT_EQ(log.lines().back(), "error reading orb file 11\n");
    EXPECT_EQ(thrown([&] { s->getInt(); }), kEndOfFile);
    EXPECT_EQ(log.lines().back(), "error reading orb file 9\n");
    // The partial word counted: 2 + 1.
    EXPECT_EQ(s->position(), 3);
}

TYPED_TEST(Stream, GetStringAtEndOfFileLeavesTheBufferAndDoesNotThrow)
{
    auto s = TypeParam::over(Bytes{'a', 'b', '\n'});
    char line[16];
    EXPECT_EQ(s->getString(line, sizeof line), 0);
    EXPECT_STREQ(line, "ab\n");
    std::strcpy(line, "kept");
    EXPECT_EQ(s->getString(line, sizeof line), 0);
    EXPECT_STREQ(line, "kept");
    EXPECT_TRUE(s->eof());
}

TYPED_TEST(Stream, GetStringThrowsOnlyOnAnEmptyLine)
{
    LogCapture log;
    auto s = TypeParam::over(Bytes{'\0', 'x', '\n'});
    char line[16];
    EXPECT_EQ(thrown([&] { s->getString(line, sizeof line); }), kEndOfFile);
    EXPECT_EQ(log.lines().back(), "error reading orb file 6\n");
}

TYPED_TEST(Stream, LongLinesAreSplitAtTheLimit)
{
    std::string text(40, 'x');
    text.back() = '\n';
    auto s = TypeParam::over(Bytes(text.begin(), text.end()));
    char line[64];
    EXPECT_EQ(s->getTerminatedString(line, 35), 34);
    EXPECT_EQ(std::string(line), std::string(34, 'x'));
    EXPECT_EQ(s->getTerminatedString(line, 35), 6);
    EXPECT_STREQ(line, "xxxxx\n");
    EXPECT_FALSE(s->eof());
    EXPECT_EQ(s->getTerminatedString(line, 35), -1);
    EXPECT_TRUE(s->eof());
    EXPECT_EQ(s->position(), 40);

    // A last line without a newline sets end of file.
    auto t = TypeParam::over(Bytes{'a', 'b'});
    EXPECT_EQ(t->getTerminatedString(line, sizeof line), 2);
    EXPECT_TRUE(t->eof());
}

TYPED_TEST(Stream, SeekMovesAndClearsEndOfFile)
{
    Bytes bytes(600000);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i * 7);
    auto s = TypeParam::over(bytes);
    // Far jumps, back and forth, inside and outside the buffered data.
    for (long at : {599990L, 3L, 300001L, 300000L, 123457L, 599998L}) {
        EXPECT_EQ(s->seek(at), 0);
        EXPECT_EQ(s->position(), at);
        EXPECT_EQ(s->getByte(), bytes[size_t(at)]) << at;
    }
    EXPECT_EQ(thrown([&] { s->getWord(); }), kEndOfFile);
    EXPECT_TRUE(s->eof());
    EXPECT_EQ(s->seek(10), 0);
    EXPECT_FALSE(s->eof());
    EXPECT_EQ(s->getWord(), (bytes[10] << 8) | bytes[11]);
}

TYPED_TEST(Stream, SeekPastTheEndSucceedsAndReadsNothing)
{
    auto s = TypeParam::over(Bytes{1, 2, 3});
    EXPECT_EQ(s->seek(1000), 0);
    EXPECT_EQ(s->position(), 1000);
    EXPECT_FALSE(s->eof());
    unsigned char b[4];
    EXPECT_EQ(s->getRawData(b, 4), 0);
    EXPECT_TRUE(s->eof());
    // A failed seek still sets the counter.
    EXPECT_NE(s->seek(-5), 0);
    EXPECT_EQ(s->position(), -5);
}

TEST(FileStream, MissingFileLogsAndThrows)
{
    LogCapture log;
    EXPECT_EQ(thrown([] { FileInputStream s("/nonexistent/dir/x.orb"); }), "File Could not be opened!");
    EXPECT_EQ(log.lines(), Lines{"The file /nonexistent/dir/x.orb could not be opened\n"});
}

TEST(MemoryStream, ReadsTheCallersBytesInPlace)
{
    unsigned char bytes[] = {'a', '\n', 0x01, 0x02};
    MemoryInputStream s(bytes, sizeof bytes);
    char line[8];
    EXPECT_EQ(s.getTerminatedString(line, sizeof line), 2);
    bytes[2] = 0x7F; // not copied: a change shows
    EXPECT_EQ(s.getWord(), 0x7F02);

    MemoryInputStream none(nullptr, 0);
    EXPECT_EQ(none.getTerminatedString(line, sizeof line), -1);
    EXPECT_TRUE(none.eof());
    EXPECT_EQ(none.seek(3), 0);
    EXPECT_EQ(none.seek(0), 0);
    EXPECT_FALSE(none.eof());
}
