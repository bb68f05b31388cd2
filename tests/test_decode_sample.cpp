// Item framing and sample decoding, on items laid out byte by byte.
#include <gtest/gtest.h>

#include <cmath>

#include "Internals.h"

using namespace orbtest;

namespace {

using Floats = std::vector<float>;
constexpr float m = -32768.0f;

// The position, pupil, gaze and resolution members in record order.
Floats positions(const FSAMPLE& s)
{
    return {s.rawX[0],    s.rawX[1],    s.rawY[0],      s.rawY[1],
            s.secondX[0], s.secondX[1], s.secondY[0],   s.secondY[1],
            s.pupilSize[0], s.pupilSize[1], s.gazeX[0], s.gazeX[1],
            s.gazeY[0],   s.gazeY[1],   s.resolutionX,  s.resolutionY};
}

constexpr uint16_t kAllGroups = kBothEyes | kRawGroup | kSecondGroup | kGazeGroup | kResolutionGroup |
                                kPupilGroup | kStatusWord | kInputWord | kButtonsWord | kExtraData |
                                kSkipList1 | kSkipList2 | kSampleItem;

// A binocular sample with every group and a distinct value everywhere.
SampleItem fullSample()
{
    SampleItem s;
    s.flags = kAllGroups;
    s.step = 5;
    s.raw[0][0] = 1; s.raw[0][1] = 2; s.raw[1][0] = 3; s.raw[1][1] = 4;
    s.second[0][0] = 5; s.second[0][1] = 6; s.second[1][0] = 7; s.second[1][1] = -8;
    s.gaze[0][0] = 90; s.gaze[0][1] = 100; s.gaze[1][0] = -110; s.gaze[1][1] = 120;
    s.res[0] = 130; s.res[1] = 140;
    s.pupil[0] = 1500; s.pupil[1] = 1600;
    s.status = 0x1111; s.input = 0x2222; s.buttons = 0x3333;
    s.extraType = 0x32;
    s.extra = {0xAAAA, 0xBBBB};
    s.skip1 = {3, 9, 0xE1, 0xE2, 0xE3, 0};
    s.skip2 = {0};
    return s;
}

} // namespace

TEST(Framing, TagsPendingItemsAndRefusals)
{
    OrbWriter w;
    w.add(EventItem(SFIX, 1, 0x12).start(10)).add(SampleItem{});
    auto f = openAtItems(w);
    unsigned short type = 0;
    Sample s;
    EData e;
    EXPECT_EQ(f->next_combfile_item(&type), 0);
    EXPECT_EQ(type, 0x47) << "the whole high byte, eye bits included";
    // Each decoder hands the other kind back with its tag still pending.
    EXPECT_EQ(f->read_combfile_sample(&s, 0, 1), -2);
    EXPECT_EQ(f->read_combfile_event(&e, 1), 0);
    EXPECT_EQ(e.fe.startTime, 10u);
    EXPECT_EQ(f->next_combfile_item(&type), 1);
    EXPECT_EQ(type, kLeftEye | kFullTime | kSampleItem);
    EXPECT_EQ(f->read_combfile_event(&e, 1), -2);
    EXPECT_EQ(f->pendingTag, kLeftEye | kFullTime | kSampleItem);
    EXPECT_EQ(f->read_combfile_sample(&s, 0, 1), 0);
    EXPECT_EQ(f->next_combfile_item(&type), -1) << "the closing zero tag";
    EXPECT_EQ(thrown([&] { f->next_combfile_item(&type); }), "End of file Exception");
    type = 77;
    EXPECT_EQ(f->next_combfile_item(&type), 1) << "end of file: nothing read";
    EXPECT_EQ(type, 77);

    f->stream->seek(long(w.headerSize()));
    f->preambleComplete = 0;
    EXPECT_EQ(f->next_combfile_item(&type), 2);
    EXPECT_EQ(f->read_combfile_sample(&s, 0, 0), -1);
    f->preambleComplete = 1;
    f->itemReadingEnabled = 0;
    EXPECT_EQ(f->next_combfile_item(&type), -1);
    EXPECT_EQ(f->read_combfile_sample(&s, 0, 0), -1);
    f->itemReadingEnabled = 1;
    EXPECT_EQ(f->read_combfile_sample(nullptr, 0, 0), -1);
    EXPECT_EQ(f->stream->position(), long(w.headerSize())) << "nothing was read";
}

TEST(DecodeSample, AbsentGroupsStepsAndScaledGaze)
{
    OrbWriter w;
    w.raw({0xA0, 0x01, 0x00, 0x00, 0x03, 0xE8});       // full time 1000, no groups
    w.raw({0x84, 0x01, 0x04, 0x00, 0x64, 0xFF, 0x9C}); // step 4, left gaze 100, -100
    w.raw({0x84, 0x01, 0x01, 0x80, 0x00, 0x00, 0x01}); // step 1, left gaze -32768, 1
    auto f = openAtItems(w);
    f->gazeDivisor = 10.0f;

    Sample s;
    FSAMPLE& fs = s.fs;
    fs.pupilSize[0] = fs.pupilSize[1] = 77.0f;
    fs.extraData[0] = 0x1234;
    fs.gazeVelX[1] = 5.0f;
    ASSERT_EQ(f->read_combfile_sample(&s, 0, 0), 0);
    EXPECT_EQ(fs.time, 1000u);
    EXPECT_EQ(fs.flags, kLeftEye | kFullTime | kSampleItem);
    // An absent pupil group leaves the sizes as they were.
    EXPECT_EQ(positions(fs), (Floats{m, m, m, m, m, m, m, m, 77, 77, m, m, m, m, 1e8f, 1e8f}));
    EXPECT_EQ((std::vector<int>{fs.status, fs.input, fs.buttons, uint16_t(fs.extraType), fs.extraData[0]}),
              (std::vector<int>{32768, 32768, 0, 32768, 0x1234}));
    EXPECT_EQ(fs.gazeVelX[1], 5.0f) << "velocities are not the decoder's";

    ASSERT_EQ(f->read_combfile_sample(&s, 0, 0), 0);
    EXPECT_EQ(fs.time, 1004u);
    EXPECT_EQ(positions(fs), (Floats{m, m, m, m, m, m, m, m, 77, 77, 10, m, -10, m, 1e8f, 1e8f}));

    ASSERT_EQ(f->read_combfile_sample(&s, 0, 0), 0);
    EXPECT_EQ(fs.time, 1005u);
    EXPECT_EQ(fs.gazeX[0], 1e8f) << "a missing word, not an absent group";
    EXPECT_EQ(fs.gazeY[0], 0.1f);
}

TEST(DecodeSample, EveryGroupInDiskOrder)
{
    SampleItem right;
    right.flags = kRightEye | kRawGroup | kPupilGroup | kGazeGroup | kFullTime;
    right.time = 0x12345678;
    right.raw[1][0] = -3; right.raw[1][1] = 4;
    right.gaze[1][0] = 7; right.gaze[1][1] = 8;
    right.pupil[1] = 900;
    SampleItem early;
    early.time = 50;
    OrbWriter w;
    w.add(fullSample()).add(right).add(early);
    auto f = openAtItems(w);
    f->gazeDivisor = 2.0f;
    f->lastSampleTime = 100;

    Sample s;
    const FSAMPLE& fs = s.fs;
    ASSERT_EQ(f->read_combfile_sample(&s, 0, 0), 0);
    EXPECT_EQ(fs.time, 105u);
    EXPECT_EQ(fs.flags, kAllGroups);
    EXPECT_EQ(positions(fs), (Floats{1, 3, 2, 4, 5, 7, 6, -8, 1500, 1600, 45, -55, 50, 60, 65, 70}));
    EXPECT_EQ((std::vector<int>{fs.status, fs.input, fs.buttons, fs.extraType, fs.extraData[0], fs.extraData[1]}),
              (std::vector<int>{0x1111, 0x2222, 0x3333, 0x32, 0xAAAA, 0xBBBB}));

    // The skipped lists were consumed exactly: the next item decodes.
    ASSERT_EQ(f->read_combfile_sample(&s, 0, 0), 0);
    EXPECT_EQ(fs.time, 0x12345678u);
    EXPECT_EQ(positions(fs), (Floats{m, -3, m, 4, m, m, m, m, m, 900, m, 3.5f, m, 4, 1e8f, 1e8f}));
    EXPECT_EQ(fs.extraData[1], 0xBBBB) << "not rewritten by a sample without extra data";
    EXPECT_EQ(f->currentSampleFlags, kAllGroups | right.flags | kSampleItem);

    // The earliest and latest times the file has seen.
    EXPECT_EQ(f->earliestSampleTime, 105u);
    ASSERT_EQ(f->read_combfile_sample(&s, 0, 0), 0);
    EXPECT_EQ(f->earliestSampleTime, 50u);
    EXPECT_EQ(f->latestSampleTime, 0x12345678u);
}

TEST(DecodeSample, ExtraDataIsCappedAtEightWords)
{
    SampleItem s;
    s.flags = kExtraData | kFullTime;
    s.extraType = 0x2C; // 12 words meant
    for (uint16_t i = 1; i <= 12; ++i) s.extra.push_back(i);
    OrbWriter w;
    w.add(s);
    auto f = openAtItems(w);
    Sample out;
    ASSERT_EQ(f->read_combfile_sample(&out, 0, 0), 0);
    EXPECT_EQ(out.fs.extraType, 0x2C);
    EXPECT_EQ(std::vector<uint16_t>(out.fs.extraData, out.fs.extraData + 8),
              (std::vector<uint16_t>{1, 2, 3, 4, 5, 6, 7, 8}));
    // Words 9 to 12 are left where the next tag is expected.
    unsigned short type = 0;
    EXPECT_EQ(f->next_combfile_item(&type), 1);
    EXPECT_EQ(type, 9);
}

TEST(DecodeSample, ExpectedTimeOverridesTheStep)
{
    SampleItem s;
    s.flags = kFullTime;
    s.time = 1990;
    OrbWriter w;
    w.add(s);
    s.flags = 0;
    s.step = 8;
    w.add(s).add(s).add(s);
    auto f = openAtItems(w);
    Sample out;
    ASSERT_EQ(f->read_combfile_sample(&out, 5000, 0), 0);
    EXPECT_EQ(out.fs.time, 1990u) << "a full time stands";
    ASSERT_EQ(f->read_combfile_sample(&out, 2000, 0), 0); // 1998, but 2000 expected
    EXPECT_EQ(out.fs.time, 2000u);
    ASSERT_EQ(f->read_combfile_sample(&out, 2008, 0), 0);
    EXPECT_EQ(out.fs.time, 2008u);
    ASSERT_EQ(f->read_combfile_sample(&out, 0, 0), 0);
    EXPECT_EQ(out.fs.time, 2016u);
}

TEST(DecodeSample, PrescaledWords)
{
    OrbWriter w;
    w.raw({0x00, 0x64, 0x00, 0x64, 0x00, 0x64, 0xFF, 0x9C});
    auto f = openAtItems(w);
    EXPECT_EQ(f->get_prescaled_word(4.0f), 25.0f);
    EXPECT_EQ(f->get_prescaled_word(0.05f), 100.0f) << "too small a divisor is not applied";
    EXPECT_EQ(f->get_prescaled_word(NAN), 100.0f);
    EXPECT_EQ(f->get_prescaled_word(-2.0f), -100.0f);
}

TEST(DecodeSample, ShortReadAnywhere)
{
    // The readers of fullSample(), field by field (the skipped blocks'
    // content counts as bytes).
    Bytes item;
    fullSample().writeTo(item);
    expectEveryCutToFail(item, "wb" + std::string(16, 'w') + "wwwbwwbbbbbbb", [](ItemDecoder& f, int catchErrors) {
        Sample s;
        return f.read_combfile_sample(&s, 0, catchErrors);
    });
}
