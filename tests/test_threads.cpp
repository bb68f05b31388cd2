// Two recordings read at the same time from two threads give exactly the
// records that reading them one after the other gives.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "Recordings.h"
#include "orbapi.h"

using namespace orbtest;

namespace {

// Every record of a walk, as bytes, with the codes and a lookup by time.
std::vector<unsigned char> walk(const std::string& path)
{
    std::vector<unsigned char> out;
    int err = 0;
    _ORBFILE* f = orb_open_file(path.c_str(), 2, 1, 1, &err);
    if (!f) return out;
    int code;
    while ((code = orb_get_next_data(f)) != NO_MORE_ITEMS) {
        out.push_back(static_cast<unsigned char>(code));
        ALLF_DATA* d = orb_get_float_data(f);
        if (!d) continue;
        ALLF_DATA copy = *d;
        if (code != SAMPLE && code != RECORDING) {
            // The message pointer differs between runs; its text does not.
            if (copy.fe.message) {
                const ORB_MESSAGE* m = copy.fe.message;
                out.insert(out.end(), m->text, m->text + std::max<int>(0, m->length));
            }
            copy.fe.message = nullptr;
        }
        const auto* bytes = reinterpret_cast<const unsigned char*>(&copy);
        out.insert(out.end(), bytes, bytes + sizeof copy);
    }
    for (int i = 0; i < orb_get_trial_count(f); ++i) {
        TRIAL t{};
        orb_jump_to_trial(f, i);
        orb_get_trial_header(f, &t);
        const auto* bytes = reinterpret_cast<const unsigned char*>(&t.trialWord);
        out.insert(out.end(), bytes, bytes + 12);
    }
    orb_close_file(f);
    return out;
}

std::string recording(double rate, int blocks, bool compressed)
{
    OrbWriter w;
    w.compressed = compressed;
    if (compressed) w.magic = "NORVANE_LAB_HSPDFILE ZIP\n";
    for (int b = 0; b < blocks; ++b) {
        uint32_t t0 = 10000 + uint32_t(b) * 5000;
        w.add(message(t0 - 5, "TRIALID " + std::to_string(b) + "\n"));
        addBlock(w, t0, 1500, rate, [&](int i, uint32_t t) {
            if (i % 300 == 10) w.add(EventItem(SFIX, 0).start(t - 5));
            if (i % 300 == 200) w.add(EventItem(EFIX, 0).start(t - 195).end(t - 3).words(kFieldAvgGaze, 1000, 2000));
        });
    }
    return w.write();
}

} // namespace

TEST(Threads, TwoFilesAtOnceGiveTheSameRecords)
{
    const std::string a = recording(1000.0, 3, false);
    const std::string b = recording(500.0, 2, true);
    const auto aAlone = walk(a);
    const auto bAlone = walk(b);
    ASSERT_GT(aAlone.size(), 100000u);
    ASSERT_GT(bAlone.size(), 100000u);

    for (int round = 0; round < 2; ++round) {
        std::vector<unsigned char> aTogether, bTogether;
        std::thread ta([&] { aTogether = walk(a); });
        std::thread tb([&] { bTogether = walk(b); });
        ta.join();
        tb.join();
        EXPECT_TRUE(aTogether == aAlone);
        EXPECT_TRUE(bTogether == bAlone);
    }
}

// Each thread has its own reason: failures and successes on one thread do
// not touch another's, even while both open at once.
TEST(Threads, EachThreadKeepsItsOwnLastError)
{
    const std::string good = recording(500.0, 1, true);
    const std::string bad = "NOT AN ORB FILE\nENDP:\n";
    const std::string badReason = "Bad magic.  Corrupt orb file. \n\n";
    for (int round = 0; round < 20; ++round) {
        std::string seenByBad, seenByGood;
        std::thread tb([&] {
            int err = 0;
            EXPECT_EQ(orb_open_memory(bad.data(), bad.size(), 0, 1, 1, &err), nullptr);
            seenByBad = orb_get_last_error();
        });
        std::thread tg([&] {
            seenByGood = orb_get_last_error(); // nothing called yet here
            int err = 0;
            _ORBFILE* f = orb_open_file(good.c_str(), 0, 1, 1, &err);
            EXPECT_NE(f, nullptr);
            orb_close_file(f);
            EXPECT_STREQ(orb_get_last_error(), "");
        });
        tb.join();
        tg.join();
        EXPECT_EQ(seenByBad, badReason);
        EXPECT_EQ(seenByGood, "");
    }
}
