// Event decoding: the field list, messages, block starts and ends and what
// they change in the file, on items laid out byte by byte.
#include <gtest/gtest.h>

#include <cstring>

#include "Internals.h"

using namespace orbtest;

namespace {

// Decodes the next event into a cleared record.
EData next(ItemDecoder& f, int expected = 0)
{
    EData e(nullptr);
    EXPECT_EQ(f.read_combfile_event(&e, 0), expected);
    return e;
}

using Floats = std::vector<float>;

// The 23 float members in record order.
Floats floats(const FEVENT& e)
{
    return {e.startPosX, e.startPosY,  e.startGazeX, e.startGazeY, e.startScalar, e.endPosX,
            e.endPosY,   e.endGazeX,   e.endGazeY,   e.endScalar,   e.avgPosX,    e.avgPosY,
            e.avgGazeX,  e.avgGazeY,   e.avgScalar,  e.avgPupil,    e.peakPupil,  e.startPupil,
            e.endPupil,  e.startResX,  e.endResX,    e.startResY,   e.endResY};
}

// A block start at 1000 with divisor 10, second scale 10, state word 2,
// the rate in 16.16 (left out when 0) and mode word 0x0312.
EventItem blockStartOf(unsigned type, uint32_t rate16)
{
    EventItem e(type, -1);
    e.start(1000).word(kFieldStartScalar, 10).word(kFieldEndScalar, 10).word(kFieldAvgScalar, 2);
    if (rate16) e.end(rate16);
    e.words(kFieldEndRes, 0x0312, 0);
    return e;
}

std::vector<int> modeValues(const ItemDecoder& f) { return {f.modeValue, f.levelValue, f.lowModeValue}; }

} // namespace

TEST(DecodeEvent, FieldTable)
{
    OrbWriter w;
    w.add(EventItem(EFIX, 1, 0x37)
              .start(1234).end(5678)
              .words(kFieldStartPos, 100, -32768).words(kFieldStartGaze, 40, 80)
              .word(kFieldStartScalar, 5).word(kFieldEndScalar, -6).word(kFieldAvgScalar, 7)
              .word(kFieldStartPupil, 30).word(kFieldEndPupil, 32).word(kFieldAvgPupil, 34).word(kFieldPeakPupil, 36)
              .words(kFieldEndPos, 200, 201).words(kFieldEndGaze, -32768, 8)
              .words(kFieldAvgPos, 300, 301).words(kFieldAvgGaze, 12, 16)
              .words(kFieldStartRes, 20, 24).words(kFieldEndRes, 28, 32)
              .word(kFieldBlockFlags, 0xBEEF).word(kFieldBlockFlags2, 0xCAFE).word(kFieldBlockOption, 0xF00D));
    w.add(EventItem(POINT9, 0).words(kFieldStartPlain, 5, 7));
    w.add(EventItem(POINT10, 0).words(kFieldEndPlain, 9, 11).words(kFieldAvgPlain, 13, 15));
    w.add(EventItem(POINT25, 0).words(kFieldStartPlain, -32768, 3));
    auto f = openAtItems(w);
    f->gazeDivisor = 4.0f;
    f->secondScale = 2.0f;

    EData e(nullptr);
    e.fe.aux0 = 0x5555;
    ASSERT_EQ(f->read_combfile_event(&e, 0), 0);
    const FEVENT& fe = e.fe;
    // type, eye, itemTag, contents, aux0 (untouched), block flags, flags 2, option
    EXPECT_EQ((std::vector<long>{fe.type, fe.eye, fe.itemTag, fe.contents, fe.aux0, fe.blockFlags, fe.blockFlags2,
                                 fe.blockOption}),
              (std::vector<long>{EFIX, 1, 0x36, 0x3BFF, 0x5555, 0xBEEF, 0xCAFE, 0xF00D}));
    EXPECT_EQ(fe.startTime, 1234u);
    EXPECT_EQ(fe.endTime, 5678u);
    EXPECT_EQ(floats(fe), (Floats{100, 1e8f, 10, 20, 5, 200, 201, 1e8f, 2, -6, 300, 301, 3, 4, 7, 17,
                                  18, 15, 16, 5, 7, 6, 8}));
    EXPECT_EQ(fe.message, nullptr);
    EXPECT_EQ(f->thirdScale, 1.0f) << "only block starts set the scales";
    EXPECT_EQ(f->fourthScale, 1.0f);

    // The plain pairs write their second word over a position again.
    EData c = next(*f);
    EXPECT_EQ(c.fe.contents, kHasPlain | kHasStartPair);
    EXPECT_EQ(floats(c.fe), (Floats{7, 0, 5, 7, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    c = next(*f);
    EXPECT_EQ(c.fe.contents, kHasPlain | kHasEndPair | kHasAveragePair);
    EXPECT_EQ(floats(c.fe), (Floats{15, 0, 0, 0, 0, 11, 0, 9, 11, 0, 13, 0, 13, 15, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(next(*f).fe.startGazeX, -32768.0f) << "plain words have no missing marker";
}

TEST(DecodeEvent, TimesEyesAndUnknowns)
{
    OrbWriter w;
    w.add(EventItem(EBLINK, 0).end(2000));
    w.add(EventItem(POINT28, 1));
    w.add(EventItem(12, 0).code(200).start(3));
    w.raw({0xC7, 0x12, 0x00}); // both eye bits
    w.raw({0x07, 0x10, 0x00}); // neither
    auto f = openAtItems(w);
    LogCapture log;

    EData e = next(*f);
    EXPECT_EQ(e.fe.startTime, 2000u) << "only an end time: the start takes it";
    EXPECT_EQ(e.fe.endTime, 2000u);
    EXPECT_EQ(f->latestSampleTime, 2000u) << "no sample block running";

    e = EData(nullptr);
    e.fe.startTime = 77;
    e.fe.endTime = 88;
    ASSERT_EQ(f->read_combfile_event(&e, 0), 0);
    EXPECT_EQ(e.fe.startTime, 77u);
    EXPECT_EQ(e.fe.endTime, 0u) << "neither time";

    e = next(*f); // code 200 carries nothing: the next byte is a code again
    EXPECT_EQ(e.fe.type, 12);
    EXPECT_EQ(e.fe.startTime, 3u);
    EXPECT_TRUE(log.lines().empty());
    for (unsigned type : {12u, 1u, 10u, 15u, 18u, 24u, 25u, 28u, 30u, 0u}) {
        e.fe.type = uint16_t(type);
        e.process_event();
    }
    EXPECT_EQ(log.lines(), (Lines{">>>>> FILE STRUCTURE ERROR: UNKNOWN EVENT (12)\n",
                                  ">>>>> FILE STRUCTURE ERROR: UNKNOWN EVENT (30)\n",
                                  ">>>>> FILE STRUCTURE ERROR: UNKNOWN EVENT (0)\n"}));

    // Both eye bits or neither: eye 0, also for the decoder's own note.
    e = next(*f);
    EXPECT_EQ(e.fe.eye, 0);
    EXPECT_EQ(e.fe.type, SFIX);
    f->eventEye = 1;
    EXPECT_EQ(next(*f).fe.eye, 0);
    EXPECT_EQ(f->eventEye, 0);

    EData copy(&e.fe);
    EXPECT_EQ(std::memcmp(&copy.fe, &e.fe, sizeof(FEVENT)), 0);
}

TEST(DecodeEvent, Messages)
{
    std::string text;
    for (int i = 0; i < 498; ++i) text += char('a' + i % 26);
    OrbWriter w;
    w.add(message(10, text));
    w.add(message(11, "TRIALID 1\n"));
    w.add(EventItem(MESSAGE, 0).start(12).messageRaw(499, std::string(499, 'z')));
    w.add(EventItem(MESSAGE, 0).start(13).messageRaw(-1, ""));
    auto f = openAtItems(w);

    EData e = next(*f);
    ASSERT_EQ(e.fe.message, &f->message);
    EXPECT_EQ(std::string(e.fe.message->text, size_t(e.fe.message->length)), text);
    e = next(*f); // the buffer is shared and overwritten, without terminator
    EXPECT_EQ(e.fe.message->length, 10);
    EXPECT_EQ(std::string(e.fe.message->text, 12), "TRIALID 1\nkl");

    // Too long or negative: refused, the stream left after the length word.
    const long at = f->stream->position();
    next(*f, -1);
    EXPECT_EQ(f->stream->position(), at + 2 + 5 + 1 + 2);
    f->stream->seek(at + 10 + 499 + 1);
    next(*f, -1);
    EXPECT_EQ(f->message.length, 10);
}

TEST(DecodeEvent, BlockStartRateAndMode)
{
    OrbWriter w;
    w.add(blockStartOf(SSAMPLES, 0x01F40000));
    auto f = openAtItems(w);
    f->thirdScale = f->fourthScale = 7.0f;
    f->gazeDivisor = 4.0f; // not applied to the mode word
    EData e = next(*f);
    EXPECT_EQ(f->gazeDivisor, 10.0f);
    EXPECT_EQ(f->secondScale, 10.0f);
    EXPECT_EQ(f->recordingState, 2);
    EXPECT_EQ(f->sampleRate, 500.0f);
    EXPECT_EQ(modeValues(*f), (std::vector<int>{3, 1, 2}));
    EXPECT_EQ(e.fe.endTime, 1000u);
    // Without an option or peak field the option and the third and fourth
    // scales are 1.
    EXPECT_EQ((Floats{e.fe.avgPupil, e.fe.peakPupil, float(e.fe.blockOption), f->thirdScale, f->fourthScale}),
              (Floats{500, 1, 1, 1, 1}));
    EXPECT_EQ(e.fe.contents, kHasResolution | kHasScalar | kHasEndTime | kHasAverage | kHasEnd | kHasStart);

    // Revision 0 (no version line) records at 250 Hz in one fixed mode.
    w.preamble = {"SOURCE: OCULANT\n"};
    f = openAtItems(w);
    e = next(*f);
    EXPECT_EQ(f->sampleRate, 250.0f);
    EXPECT_EQ(e.fe.avgPupil, 250.0f);
    EXPECT_EQ(modeValues(*f), (std::vector<int>{9, 1, 1}));
    EXPECT_EQ(e.fe.endTime, 1000u);

    // Without a rate, 500 Hz stands and anything else falls back to 250 Hz,
    // with a warning when it was above 500.
    OrbWriter r;
    for (uint32_t rate16 : {1000u << 16, 0u, 500u << 16, 0u, 300u << 16, 0u})
        r.add(blockStartOf(rate16 == 500u << 16 ? SEVENTS : SSAMPLES, rate16));
    f = openAtItems(r);
    LogCapture log;
    next(*f);
    e = next(*f);
    EXPECT_EQ(f->sampleRate, 250.0f);
    EXPECT_EQ(e.fe.avgPupil, 250.0f);
    EXPECT_EQ(log.lines(), Lines{"Possible miss handle! sample per second is 1000.000000 resetting to 250 \n"});
    next(*f);
    e = next(*f);
    EXPECT_EQ(f->sampleRate, 500.0f);
    EXPECT_EQ(e.fe.avgPupil, 500.0f);
    next(*f);
    next(*f);
    EXPECT_EQ(f->sampleRate, 250.0f);
    EXPECT_EQ(log.lines().size(), 1u) << "no warning at 300";
}

TEST(DecodeEvent, BlockWordsGovernTheFile)
{
    OrbWriter w;
    w.add(EventItem(SSAMPLES, -1).start(100).word(kFieldStartScalar, 10).word(kFieldEndScalar, 5)
              .word(kFieldBlockFlags, kLeftEye | kExtraData | kSampleItem).word(kFieldBlockOption, 3)
              .word(kFieldPeakPupil, 4).end(1000u << 16).words(kFieldEndRes, 0x0312, 0));
    SampleItem s;
    s.flags = kLeftEye | kGazeGroup | kFullTime;
    s.time = 150;
    s.gaze[0][0] = 50;
    w.add(s);
    w.add(EventItem(MESSAGE, 0).start(5000).word(kFieldAvgPupil, 30));
    w.add(EventItem(ESAMPLES, -1).end(160));
    w.add(blockStart(SEVENTS, 600, 500.0, 0x4000, 1, 10, 0x0312, kEventBlockBothEyes));
    w.add(EventItem(EEVENTS, -1).end(700));
    auto f = openAtItems(w);

    EData e(nullptr);
    e.fe.peakPupil = 42.0f;
    ASSERT_EQ(f->read_combfile_event(&e, 0), 0);
    EXPECT_EQ(f->currentSampleFlags, kLeftEye | kExtraData | kSampleItem);
    EXPECT_EQ(e.fe.blockOption, 3);
    EXPECT_EQ(f->thirdScale, 3.0f);
    EXPECT_EQ(f->fourthScale, 4.0f);
    EXPECT_EQ(e.fe.peakPupil, 42.0f) << "a block start's peak field is no pupil";
    EXPECT_EQ(e.fe.contents & (kHasPupil | kHasAverage), 0);
    EXPECT_EQ(f->recordingState, 1) << "no average value: 0 is stored as 1";

    Sample sample;
    ASSERT_EQ(f->read_combfile_sample(&sample, 0, 0), 0);
    EXPECT_EQ(sample.fs.gazeX[0], 5.0f) << "the block's divisor";
    EXPECT_EQ(next(*f).fe.avgPupil, 6.0f) << "the block's second scale";
    EXPECT_EQ(f->latestSampleTime, 150u) << "a block is running";
    next(*f);
    EXPECT_EQ(f->currentSampleFlags, 0);

    next(*f);
    EXPECT_EQ(f->eventBlockWord, kEventBlockBothEyes);
    EXPECT_EQ(f->eventBlockWord2, 0x4000);
    EXPECT_EQ(f->gazeDivisor, 1.0f);
    next(*f);
    EXPECT_EQ(f->eventBlockWord, 0);
    EXPECT_EQ(f->latestSampleTime, 700u);
}

TEST(DecodeEvent, Refusals)
{
    OrbWriter w;
    w.add(EventItem(SFIX).start(1));
    auto f = openAtItems(w);
    LogCapture log;
    EData e;
    for (int16_t ItemDecoder::*gate : {&ItemDecoder::itemReadingEnabled, &ItemDecoder::preambleComplete, &ItemDecoder::isOpen}) {
        (*f).*gate = 0;
        EXPECT_EQ(f->read_combfile_event(&e, 0), -1);
        (*f).*gate = 1;
    }
    EXPECT_EQ(log.lines(), (Lines{"input is bad \n", " bad status  2\n", " bad status  -1\n"}));
    EXPECT_EQ(f->read_combfile_event(&e, 0), 0);
    EXPECT_EQ(f->read_combfile_event(&e, 0), -1); // the closing zero tag
    EXPECT_EQ(f->read_combfile_event(&e, 1), -1); // runs into the end
    log.clear();
    EXPECT_EQ(f->read_combfile_event(&e, 0), -1);
    EXPECT_EQ(log.lines(), Lines{" bad status  1\n"});
}

TEST(DecodeEvent, ShortReadAnywhere)
{
    const EventItem item = EventItem(MESSAGE, 0).start(1000).words(kFieldStartPlain, 1, 2).message("hey").code(200);
    expectEveryCutToFail(item.bytes(), "wbibwwbwmmmbb", [](ItemDecoder& f, int catchErrors) {
        EData e;
        return f.read_combfile_event(&e, catchErrors);
    });
}
