// Camera-level pupil and corneal-reflection values of samples.
#include <gtest/gtest.h>

#include <cstring>

#include "Recordings.h"
#include "orbapi.h"

using namespace orbtest;

namespace {

constexpr float kMissing = 100000000.0f;

class RawPupil : public testing::Test {
protected:
    void SetUp() override
    {
        // One block whose sample stream has gaze divisor 10, so that the
        // packed encoding is read with that scale.
        OrbWriter w;
        addBlock(w, 1000, 10);
        std::string path = w.write();
        int err = 0;
        f = orb_open_file(path.c_str(), 0, 1, 1, &err);
        ASSERT_NE(f, nullptr);
        std::memset(&s, 0, sizeof s);
        s.time = 1004;
    }
    void TearDown() override { orb_close_file(f); }

    void words(std::initializer_list<int> w)
    {
        int i = 0;
        for (int v : w) s.extraData[i++] = uint16_t(v);
    }

    _ORBFILE* f = nullptr;
    FSAMPLE s;
};

} // namespace

TEST_F(RawPupil, AreasOfBothEncodings)
{
    s.pupilSize[0] = -32000.0f;
    EXPECT_EQ(orb_get_uncorrected_pupil_area(f, &s, 0), 700);
    s.pupilSize[0] = -32700.0f;
    EXPECT_EQ(orb_get_uncorrected_pupil_area(f, &s, 0), 0);
    s.pupilSize[0] = -40000.0f;
    EXPECT_EQ(orb_get_uncorrected_pupil_area(f, &s, 0), 0);

    words({0, 0, 0, 33, 1234, 56, 0, 77});
    s.pupilSize[0] = 0.0f;
    EXPECT_EQ(orb_get_uncorrected_pupil_area(f, &s, 0), 1234);
    EXPECT_EQ(orb_get_uncorrected_cr_area(f, &s, 0), 56);
    EXPECT_EQ(orb_get_uncorrected_cr2_area(f, &s, 0), 0);

    // Packed: the CR area is the resolution times the gaze scale in force.
    s.pupilSize[1] = -100.0f;
    s.resolutionX = 2.0f;
    s.resolutionY = 3.04f;
    EXPECT_EQ(orb_get_uncorrected_cr_area(f, &s, 1), 30);
    EXPECT_EQ(orb_get_uncorrected_cr_area(f, &s, 0), 56);
    s.extraType = 196;
    EXPECT_EQ(orb_get_uncorrected_cr2_area(f, &s, 1), 33);
    s.extraType = 200;
    EXPECT_EQ(orb_get_uncorrected_cr2_area(f, &s, 1), 77);
    s.extraType = 201;
    EXPECT_EQ(orb_get_uncorrected_cr2_area(f, &s, 1), 0);

    // Outside every trial there is no scale.
    s.time = 5000;
    EXPECT_EQ(orb_get_uncorrected_cr_area(f, &s, 1), 0);
}

TEST_F(RawPupil, DimensionsAndWindow)
{
    int dim[2] = {-1, -1};
    words({0, 0, 0, 0, 500, 0, 0x1E28, 0x0A14});
    orb_get_pupil_dimension(f, &s, 0, dim);
    EXPECT_EQ(dim[0], 0x28);
    EXPECT_EQ(dim[1], 0x1E);
    orb_get_cr_dimension(f, &s, dim);
    EXPECT_EQ(dim[0], 20);
    EXPECT_EQ(dim[1], 10);
    s.extraData[7] = 0xF214; // the height keeps its sign
    orb_get_cr_dimension(f, &s, dim);
    EXPECT_EQ(dim[0], 20);
    EXPECT_EQ(dim[1], -14);

    s.extraData[4] = 0; // no pupil
    orb_get_pupil_dimension(f, &s, 0, dim);
    EXPECT_EQ(dim[0], 0);
    EXPECT_EQ(dim[1], 0);

    s.pupilSize[0] = -32000.0f;
    s.gazeX[0] = kMissing;
    orb_get_pupil_dimension(f, &s, 0, dim);
    EXPECT_EQ(dim[0], 100000000);
    EXPECT_EQ(dim[1], 100000000);

    s.input = 0x0203;
    orb_get_window_position(f, &s, dim);
    EXPECT_EQ(dim[0], 100);
    EXPECT_EQ(dim[1], 103);
}

TEST_F(RawPupil, CentresOfBothEncodings)
{
    float xy[2];
    s.input = 0x0203; // window (100, 103)
    words({250, -500, 1000, 125, 900, 40, 0, 0});
    orb_get_uncorrected_raw_pupil(f, &s, 0, xy);
    EXPECT_FLOAT_EQ(xy[0], 101.0f);
    EXPECT_FLOAT_EQ(xy[1], 101.0f);
    orb_get_uncorrected_raw_cr(f, &s, 0, xy);
    EXPECT_FLOAT_EQ(xy[0], 104.0f);
    EXPECT_FLOAT_EQ(xy[1], 103.5f);

    // Packed: integer parts in raw/second, four fraction bits each in the
    // scaled gaze value's low byte.
    s.pupilSize[0] = -32000.0f;
    s.rawX[0] = -32690.0f;   // +32700 = 10
    s.rawY[0] = -32680.0f;   // 20
    s.gazeX[0] = 12.1f;      // x 10 + 32700 = 0x8035
    orb_get_uncorrected_raw_pupil(f, &s, 0, xy);
    EXPECT_FLOAT_EQ(xy[0], (10 * 16 + 3) / 256.0f);
    EXPECT_FLOAT_EQ(xy[1], (20 * 16 + 5) / 256.0f);
    s.rawY[0] = -32768.0f;
    orb_get_uncorrected_raw_pupil(f, &s, 0, xy);
    EXPECT_EQ(xy[0], kMissing);

    s.pupilSize[0] = -32700.0f; // no pupil area
    orb_get_uncorrected_raw_pupil(f, &s, 0, xy);
    EXPECT_EQ(xy[0], kMissing);
    EXPECT_EQ(xy[1], kMissing);
}

TEST_F(RawPupil, SecondReflection)
{
    float xy[2];
    s.pupilSize[1] = -32000.0f;
    s.extraType = 200;
    words({0, 0, 0, 0, 100, 7, 0x80FF, 66});
    orb_get_uncorrected_raw_cr2(f, &s, 1, xy);
    EXPECT_FLOAT_EQ(xy[0], 99.5f);
    EXPECT_FLOAT_EQ(xy[1], 7.99609375f);

    s.extraType = 196; // first words, either eye
    words({12, 3, 0x0180, 9});
    orb_get_uncorrected_raw_cr2(f, &s, 1, xy);
    EXPECT_FLOAT_EQ(xy[0], 12.0f + 1 / 256.0f);
    EXPECT_FLOAT_EQ(xy[1], 3.5f);

    s.extraData[3] = 0; // area 0
    orb_get_uncorrected_raw_cr2(f, &s, 1, xy);
    EXPECT_EQ(xy[0], kMissing);
}

TEST_F(RawPupil, PupilMinusReflection)
{
    float xy[2];
    s.input = 0; // window (88, 95)
    // A pupil of area 1000 one hundred units from a CR of area 50: no
    // overlap, so the plain difference.
    words({25000, 0, 0, 0, 1000, 50, 0, 0});
    EXPECT_EQ(orb_get_pupil_cr(f, &s, 0, xy), xy);
    EXPECT_FLOAT_EQ(xy[0], 188.0f - 88.0f * 1.02f);
    EXPECT_FLOAT_EQ(xy[1], 95.0f - 95.0f * 1.02f);

    // Ten units apart the CR reaches into the pupil, which is pulled toward
    // it before the difference is taken.
    words({2500, 0, 0, 0, 1000, 50, 0, 0});
    orb_get_pupil_cr(f, &s, 0, xy);
    float plain = 98.0f - 88.0f * 1.02f;
    EXPECT_LT(xy[0], plain);
    EXPECT_GT(xy[0], 88.0f - 88.0f * 1.02f);
    EXPECT_FLOAT_EQ(xy[1], 95.0f - 95.0f * 1.02f);
}
