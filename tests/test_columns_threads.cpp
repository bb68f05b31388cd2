// Columns of two recordings read on two threads at once are those that
// reading them one after the other gives; a compressed body is inflated
// on a thread of its own meanwhile.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "Recordings.h"
#include "orbapi.h"

using namespace orbtest;

namespace {

// Every column's bytes, one after the other, and the message text.
std::vector<unsigned char> columnBytes(const std::string& path)
{
    std::vector<unsigned char> out;
    int err = 0;
    ORB_COLUMNS* c = orb_read_columns(path.c_str(), 2, 1, 1, ORB_COLUMNS_VELOCITIES | ORB_COLUMNS_CAMERA,
                                      nullptr, nullptr, nullptr, nullptr, &err);
    if (!c) return out;
    for (int t = ORB_TABLE_SAMPLES; t <= ORB_TABLE_TRIALS; ++t)
        for (int i = 0; i < orb_columns_count(c, t); ++i) {
            ORB_COLUMN col{};
            orb_columns_column(c, t, i, &col);
            const size_t size = orb_column_type_size(col.type);
            const auto* data = static_cast<const unsigned char*>(col.data);
            if (data) out.insert(out.end(), data, data + size * orb_columns_rows(c, t));
        }
    size_t n = 0;
    const char* text = orb_columns_text(c, &n);
    if (text) out.insert(out.end(), text, text + n);
    orb_free_columns(c);
    return out;
}

std::string recording(double rate, bool compressed)
{
    OrbWriter w;
    w.compressed = compressed;
    if (compressed) w.magic = "NORVANE_LAB_HSPDFILE ZIP\n";
    for (int b = 0; b < 3; ++b) {
        const uint32_t t0 = 10000 + uint32_t(b) * 5000;
        w.add(message(t0 - 5, "TRIALID " + std::to_string(b)));
        addBlock(w, t0, 1500, rate, [&](int i, uint32_t t) {
            if (i % 300 == 10) w.add(EventItem(SFIX, 0).start(t - 5));
            if (i % 300 == 200) w.add(EventItem(EFIX, 0).start(t - 195).end(t - 3).words(kFieldAvgGaze, 1000, 2000));
        });
    }
    return w.write();
}

} // namespace

TEST(ColumnsThreads, TwoRecordingsAtOnceGiveTheSameColumns)
{
    const std::string a = recording(1000.0, false);
    const std::string b = recording(500.0, true);
    const auto aAlone = columnBytes(a);
    const auto bAlone = columnBytes(b);
    ASSERT_GT(aAlone.size(), 100000u);
    ASSERT_GT(bAlone.size(), 100000u);
    std::vector<unsigned char> aTogether, bTogether;
    std::thread other([&] { bTogether = columnBytes(b); });
    aTogether = columnBytes(a);
    other.join();
    EXPECT_TRUE(aTogether == aAlone);
    EXPECT_TRUE(bTogether == bAlone);
}
