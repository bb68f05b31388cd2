// Velocities and resolutions: the two filter families over position series,
// and the filling of a queued sample from its neighbours.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>

#include "Internals.h"
#include "SampleQueue.h"

using namespace orbtest;

namespace {

constexpr float M = 100000000.0f;
constexpr int kN = 39;
constexpr int kC = 19;

std::vector<float> linear(float slope)
{
    std::vector<float> p(kN);
    for (int i = 0; i < kN; ++i) p[size_t(i)] = slope * float(i);
    return p;
}

// A queue of n binocular samples, keys 1000, 1000 + step, ...; sample i has
// gaze x = 10 i, gaze y = 5, raw x = 2 i, second x = 10 (i - 19), second
// y = 0, resolution 40 and pupils of 800.  adjust(fs, i) may change it.
void fillQueue(SampleQueue& q, int n, unsigned step, const std::function<void(FSAMPLE&, int)>& adjust = {})
{
    for (int i = 0; i < n; ++i) {
        Sample s;
        FSAMPLE& fs = s.fs;
        fs.time = (1000 + step * unsigned(i)) / 2;
        fs.flags =
            kSampleItem | kBothEyes | kGazeGroup | kSecondGroup | kRawGroup | kResolutionGroup | kPupilGroup;
        for (int e = 0; e < 2; ++e) {
            fs.gazeX[e] = 10.0f * float(i);
            fs.gazeY[e] = 5.0f;
            fs.rawX[e] = 2.0f * float(i);
            fs.rawY[e] = 0.0f;
            fs.secondX[e] = 10.0f * float(i - 19);
            fs.secondY[e] = 0.0f;
            fs.pupilSize[e] = 800.0f;
        }
        fs.resolutionX = fs.resolutionY = 40.0f;
        if (adjust) adjust(fs, i);
        q.addSample(&s, 1000 + step * unsigned(i));
    }
}

Sample* sampleAtSlot(SampleQueue& q, int i, unsigned step) { return q.getOldSample(1000 + step * unsigned(i)); }

// An open file without items whose tracker model selects the filter.
std::unique_ptr<ORBFile> fileOfModel(const char* source)
{
    OrbWriter w;
    w.preamble = {"VERSION: OCULANT MK 3\n", std::string(source) + "\n"};
    return openOrb(w);
}

} // namespace

// ---- the standard filter --------------------------------------------------

TEST(StandardFilter, RulesByTheNeighboursPresent)
{
    // p[c-2] to p[c+2] of 39 positions (M missing), at rate 1000 and
    // resolution 40.
    const struct { bool fast; float p[5]; double v; } cases[] = {
        {false, {170, 180, 190, 200, 210}, 250.0}, {true, {170, 180, 190, 200, 210}, 250.0}, // p[i] = 10 i
        {false, {0, 10, 20, 40, 40}, 70.0 * 1000 / 6 / 40}, // five-point
        {true, {0, 10, 20, 40, 40}, 375.0},                 // central
        {false, {M, 10, 20, 40, 40}, 375.0},                // an outer point missing: central
        {false, {0, 10, 20, 40, M}, 375.0},
        {false, {0, 10, 20, M, 40}, 250.0}, // backward: (p[c] - p[c-1]) rate / res
        {false, {0, M, 20, 30, 40}, 250.0}, // forward: (p[c+1] - p[c]) rate / res
        {false, {M, M, 3, M, M}, M},
        {true, {M, 1, 3, M, M}, 50.0},
        {true, {M, 1, M, M, M}, M}, // backward needs the centre
    };
    SampleQueue q;
    for (const auto& c : cases) {
        std::vector<float> p(kN, 0.0f);
        std::copy(c.p, c.p + 5, p.begin() + kC - 2);
        EXPECT_NEAR(q.calcVelocity_non_hspd(c.fast, p.data(), kN, 40.0f, 1000.0f), c.v, 1e-9)
            << c.fast << " " << c.p[0] << " " << c.p[1] << " " << c.p[2] << " " << c.p[3] << " " << c.p[4];
    }
    // Too short a series for five points, or for any neighbour: nothing
    // read outside.
    const float five[] = {0, 10, 20, 40, 40}, one = 5.0f;
    EXPECT_DOUBLE_EQ(q.calcVelocity_non_hspd(false, five, 5, 40.0f, 1000.0f), 375.0);
    EXPECT_EQ(q.calcVelocity_non_hspd(false, &one, 1, 40.0f, 1000.0f), M);
}

// ---- the high-speed filter ------------------------------------------------

TEST(HighSpeedFilter, RowsByRateWithAFixedScale)
{
    SampleQueue q;
    const float s = 4.0f;
    std::vector<float> p = linear(s);
    // Support differences of a linear series per row: 6, 10, 22 and 46 s.
    struct Row { float rate; double sum; } rows[] = {
        {250.0f, 6.0}, {499.0f, 6.0}, {500.0f, 10.0}, {999.0f, 10.0},
        {1000.0f, 22.0}, {1999.0f, 22.0}, {2000.0f, 46.0}, {4000.0f, 46.0}};
    for (const Row& r : rows)
        EXPECT_NEAR(q.calcVelocity_hspd(false, p.data(), kN, 10.0f, r.rate), 25.0 * 0.167 * r.sum * s, 1e-9) << r.rate;
    // 250.5 s / resolution at 250, not 250 s / resolution.
    EXPECT_NEAR(q.calcVelocity_hspd(false, p.data(), kN, 10.0f, 250.0f), 250.5 * s / 10.0, 1e-9);
    // Fast: half the distance of the inner supports, per 4 samples at 250.
    EXPECT_NEAR(q.calcVelocity_hspd(true, p.data(), kN, 10.0f, 250.0f), 25.0 * s, 1e-9);
    EXPECT_NEAR(q.calcVelocity_hspd(true, p.data(), kN, 10.0f, 2000.0f), 25.0 * 0.5 * 15.0 * s, 1e-9);
    EXPECT_EQ(q.calcVelocity_hspd(false, nullptr, kN, 10.0f, 250.0f), M);
}

TEST(HighSpeedFilter, EveryWindowValueMustBePresent)
{
    SampleQueue q;
    const std::vector<float> p = linear(4.0f);
    for (int i = 0; i < kN; ++i) {
        std::vector<float> m = p;
        m[size_t(i)] = M;
        EXPECT_EQ(q.calcVelocity_hspd(false, m.data(), kN, 10.0f, 2000.0f), M) << i;
        EXPECT_EQ(q.calcVelocity_hspd(true, m.data(), kN, 10.0f, 2000.0f), M) << i;
    }
    // At 1000 the window is c-9..c+9: outside it nothing matters; the
    // skipped centre must be present but its values are not used.
    std::vector<float> m = p;
    m[kC - 10] = m[kC + 10] = M;
    m[kC - 1] = 1000.0f;
    m[kC] = -50.0f;
    m[kC + 1] = 7.0f;
    const double expected = q.calcVelocity_hspd(false, p.data(), kN, 10.0f, 1000.0f);
    EXPECT_DOUBLE_EQ(q.calcVelocity_hspd(false, m.data(), kN, 10.0f, 1000.0f), expected);
    m[kC + 1] = M;
    EXPECT_EQ(q.calcVelocity_hspd(false, m.data(), kN, 10.0f, 1000.0f), M);
    // The series must be longer than the window.
    EXPECT_EQ(q.calcVelocity_hspd(false, p.data(), 38, 10.0f, 2000.0f), M);
    EXPECT_EQ(q.calcVelocity_hspd(false, p.data(), 4, 10.0f, 250.0f), M);
    EXPECT_NE(q.calcVelocity_hspd(false, p.data(), 5, 10.0f, 250.0f), M);
}

// ---- filling a sample -------------------------------------------------------

TEST(SetVelocity, StandardFilterOverTheQueue)
{
    SampleQueue q;
    fillQueue(q, kN + 10, 2);
    Sample* s = sampleAtSlot(q, kC, 2);
    EXPECT_EQ(q.setVelocity(s, 1000), 0);
    // The second position sits at (0, 0): its resolution is ~261.8.
    const double rx = (225000000.0 / std::sqrt(225000000.0)) / 57.2958;
    EXPECT_NEAR(rx, 261.8, 0.01);
    const FSAMPLE& fs = s->fs;
    for (int e = 0; e < 2; ++e) {
        EXPECT_FLOAT_EQ(fs.gazeVelX[e], 250.0f);
        EXPECT_FLOAT_EQ(fs.fastGazeVelX[e], 250.0f);
        EXPECT_FLOAT_EQ(fs.gazeVelY[e], 0.0f);
        EXPECT_FLOAT_EQ(fs.rawVelX[e], 50.0f);
        EXPECT_FLOAT_EQ(fs.secondVelX[e], float(10000.0 / float(rx)));
        EXPECT_FLOAT_EQ(fs.fastSecondVelX[e], float(10000.0 / float(rx)));
    }
}

TEST(SetVelocity, ClosedEyesAbsentEyesAndBadResolutions)
{
    SampleQueue q;
    fillQueue(q, kN, 2, [](FSAMPLE& fs, int i) {
        if (i == kC - 1) fs.pupilSize[0] = 12.0f;         // eye 0 closed just before the centre
        if (i == kC + 8) fs.flags &= uint16_t(~kRightEye);   // eye 1 not recorded
        if (i == kC + 10) fs.resolutionX = 0.005f;
        if (i == kC + 11) fs.resolutionY = M;
    });
    Sample* s = sampleAtSlot(q, kC, 2);
    q.setVelocity(s, 1000);
    // Eye 0's left neighbour is unusable: only the forward difference.
    EXPECT_FLOAT_EQ(s->fs.gazeVelX[0], 250.0f);
    EXPECT_FLOAT_EQ(s->fs.gazeVelX[1], 250.0f);

    Sample* oneEye = sampleAtSlot(q, kC + 8, 2);
    oneEye->fs.gazeVelX[1] = oneEye->fs.fastRawVelY[1] = 7.0f;
    q.setVelocity(oneEye, 1000);
    EXPECT_EQ(oneEye->fs.gazeVelX[1], 7.0f);
    EXPECT_EQ(oneEye->fs.fastRawVelY[1], 7.0f);
    EXPECT_FLOAT_EQ(oneEye->fs.gazeVelX[0], 250.0f);

    for (int i : {kC + 10, kC + 11}) {
        Sample* bad = sampleAtSlot(q, i, 2);
        q.setVelocity(bad, 1000);
        EXPECT_EQ(bad->fs.gazeVelX[0], M) << i;
        EXPECT_EQ(bad->fs.gazeVelY[0], M) << i;
        EXPECT_EQ(bad->fs.rawVelX[1], M) << i;
        EXPECT_NE(bad->fs.secondVelX[0], M) << i << ": the second position brings its own resolution";
    }
}

TEST(SetVelocity, HighSpeedModelUsesTheHighSpeedFilter)
{
    auto hq = fileOfModel("SOURCE: OCULANT HQ");
    SampleQueue& q = hq->samples->queue();
    fillQueue(q, kN + 1, 1); // 2000 per second: the window is c-19..c+19
    Sample* s = sampleAtSlot(q, kC, 1);
    q.setVelocity(s, 2000);
    EXPECT_NEAR(s->fs.gazeVelX[0], 250.0 / 40.0 * 0.167 * 46.0 * 10.0, 1e-3);
    EXPECT_NEAR(s->fs.fastGazeVelX[1], 250.0 / 40.0 * 0.5 * 15.0 * 10.0, 1e-3);
    Sample* early = sampleAtSlot(q, kC - 1, 1);
    q.setVelocity(early, 2000);
    EXPECT_EQ(early->fs.gazeVelX[0], M) << "one sample off the edge of the window";

    // A closed eye (pupil 12) in the window: no velocities for that eye,
    // neither for the sample itself nor for its neighbours.
    s->fs.pupilSize[0] = 12.0f;
    for (Sample* t : {s, sampleAtSlot(q, kC + 1, 1)}) {
        q.setVelocity(t, 2000);
        for (const float* v : {t->fs.gazeVelX, t->fs.gazeVelY, t->fs.secondVelX, t->fs.secondVelY,
                               t->fs.rawVelX, t->fs.rawVelY, t->fs.fastGazeVelX, t->fs.fastGazeVelY,
                               t->fs.fastSecondVelX, t->fs.fastSecondVelY, t->fs.fastRawVelX, t->fs.fastRawVelY}) {
            EXPECT_EQ(v[0], M);
            EXPECT_NE(v[1], M);
        }
    }

    auto mk = fileOfModel("SOURCE: OCULANT MK");
    fillQueue(mk->samples->queue(), kN, 1);
    Sample* t = sampleAtSlot(mk->samples->queue(), kC, 1);
    mk->samples->queue().setVelocity(t, 2000);
    EXPECT_FLOAT_EQ(t->fs.gazeVelX[0], 500.0f) << "the standard filter";
}

TEST(SetVelocity, AgreesWithOnePairAtATime)
{
    // Ragged data: gaps in the keys, absent groups and eyes, closed eyes,
    // odd resolutions.  Filling a sample at once must give what the twelve
    // single computations over the full neighbour array give.
    // Defects per mille of samples and values: fewer for wider windows.
    // Gaze alone (no second or raw positions) as most trackers record.
    const struct { const char* source; int rate; unsigned step; int defects; bool gazeOnly; } cases[] = {
        {"SOURCE: OCULANT MK", 1000, 2, 30, false}, {"SOURCE: OCULANT MK", 250, 8, 30, false},
        {"SOURCE: OCULANT HQ", 250, 8, 15, false},  {"SOURCE: OCULANT HQ", 500, 4, 10, false},
        {"SOURCE: OCULANT HQ", 1000, 2, 3, false},  {"SOURCE: OCULANT HQ", 2000, 1, 2, false},
        {"SOURCE: OCULANT MK", 1000, 2, 30, true},  {"SOURCE: OCULANT MK", 500, 4, 5, true},
    };
    std::mt19937 rng(11);
    for (const auto& c : cases) {
        auto defect = [&](int weight) { return int(rng() % 1000) < weight * c.defects; };
        auto f = fileOfModel(c.source);
        SampleQueue& q = f->samples->queue();
        unsigned long long key = 5000;
        for (int i = 0; i < 300; ++i) {
            key += defect(1) ? c.step * (2 + rng() % 3) : c.step;
            Sample s;
            FSAMPLE& fs = s.fs;
            fs.time = uint32_t(key / 2);
            fs.flags = kSampleItem | (defect(1) ? 0 : kLeftEye) | (defect(2) ? 0 : kRightEye) |
                       (defect(1) ? 0 : kGazeGroup) | (c.gazeOnly || defect(3) ? 0 : kSecondGroup) |
                       (c.gazeOnly || defect(2) ? 0 : kRawGroup) |
                       (rng() % 10 < 3 ? 0 : kPupilGroup);
            for (int e = 0; e < 2; ++e) {
                fs.gazeX[e] = float(int(rng() % 2000) - 200);
                fs.gazeY[e] = defect(1) ? M : float(int(rng() % 1000));
                fs.secondX[e] = float(int(rng() % 4000) - 2000);
                fs.secondY[e] = float(int(rng() % 4000) - 2000);
                fs.rawX[e] = float(int(rng() % 500));
                fs.rawY[e] = float(int(rng() % 500));
                fs.pupilSize[e] = defect(1) ? 15.0f : float(200 + rng() % 900);
            }
            fs.resolutionX = defect(1) ? M : float(rng() % 60) * 0.5f;
            fs.resolutionY = defect(1) ? 0.01f : float(1 + rng() % 60);
            q.addSample(&s, key);
        }
        const float interval = float(1000.0 / c.rate);
        int computed = 0;
        for (int slot = 0; slot < q.size(); ++slot) {
            const unsigned long long k = q.keyAt(slot);
            Sample* s = q.getOldSampleSlow(k);
            q.setVelocity(s, c.rate);
            Sample* neighbours[kN] = {};
            neighbours[kC] = s;
            for (int j = 1; j <= kC; ++j) {
                const auto d = static_cast<unsigned long long>(float(j) * interval * 2.0f);
                neighbours[kC - j] = q.getOldSample(k - d);
                neighbours[kC + j] = q.getOldSample(k + d);
            }
            const FSAMPLE& fs = s->fs;
            for (int eye = 0; eye < 2; ++eye) {
                if (!(fs.flags & (eye == 0 ? kLeftEye : kRightEye))) continue;
                const struct { bool fast; int kind; const float* x; const float* y; } pairs[] = {
                    {false, kGazePosition, fs.gazeVelX, fs.gazeVelY},
                    {false, kSecondPosition, fs.secondVelX, fs.secondVelY},
                    {false, kRawPosition, fs.rawVelX, fs.rawVelY},
                    {true, kGazePosition, fs.fastGazeVelX, fs.fastGazeVelY},
                    {true, kSecondPosition, fs.fastSecondVelX, fs.fastSecondVelY},
                    {true, kRawPosition, fs.fastRawVelX, fs.fastRawVelY},
                };
                for (const auto& p : pairs) {
                    float vx[2] = {0, 0}, vy[2] = {0, 0};
                    q.getVelocity(p.fast, p.kind, c.rate, neighbours, kN, eye, vx, vy);
                    ASSERT_EQ(vx[eye], p.x[eye]) << c.source << " " << c.rate << " slot " << slot;
                    ASSERT_EQ(vy[eye], p.y[eye]) << c.source << " " << c.rate << " slot " << slot;
                    computed += vx[eye] != M;
                }
            }
        }
        EXPECT_GT(computed, 100) << c.source << " " << c.rate; // not merely all missing
    }
}
