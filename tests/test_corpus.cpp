// Opening from memory is opening from disk: every recording the other tests
// wrote, and every input of the fuzz corpus (seeds and past findings), is
// opened both ways under every consistency mode and load switch, and each
// exported function is called on what opens.  Both ways must give the same
// records, the same log lines and the same failures, with the reason of a
// failure in orb_get_last_error.  Under the sanitizers this is also the
// replay that keeps past findings from coming back.
#include <cstdio>

#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Exercise.h"
#include "OrbWriter.h"

using namespace orbtest;

namespace {

std::vector<std::string> filesIn(const std::string& dir)
{
    std::vector<std::string> out;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.') out.push_back(dir + "/" + e->d_name);
        closedir(d);
    }
    std::sort(out.begin(), out.end());
    return out;
}

Bytes contents(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

struct Outcome {
    _ORBFILE* handle = nullptr;
    int err = 5;
    std::string lastError;
    std::string transcript;
    std::vector<std::string> log;
};

template <class Open>
Outcome run(Open open)
{
    LogCapture log;
    Outcome o;
    o.handle = open(&o.err);
    o.lastError = orb_get_last_error();
    if (o.handle) {
        orbfuzz::Transcript t(&o.transcript);
        orbfuzz::exercise(o.handle, t);
        orb_close_file(o.handle);
    }
    o.log = log.lines();
    return o;
}

std::string joined(const std::vector<std::string>& lines)
{
    std::string s;
    for (const std::string& l : lines) s += l;
    return s;
}

void compareBothWays(const std::string& path)
{
    const Bytes bytes = contents(path);
    for (int mode : orbfuzz::kModes) {
        for (const auto& load : orbfuzz::kLoads) {
            SCOPED_TRACE(path + " mode " + std::to_string(mode) + " loads " + std::to_string(load[0]) +
                         std::to_string(load[1]));
            const Outcome disk = run([&](int* err) {
                return orb_open_file(path.c_str(), mode, load[0], load[1], err);
            });
            const Outcome memory = run([&](int* err) {
                return orb_open_memory(bytes.data(), bytes.size(), mode, load[0], load[1], err);
            });
            EXPECT_EQ(disk.err, memory.err);
            EXPECT_EQ(disk.lastError, memory.lastError);
            EXPECT_EQ(disk.log, memory.log);
            EXPECT_TRUE(disk.transcript == memory.transcript) << "records differ";

            // A failure, and only a failure, leaves its log lines as the
            // reason; a success at most the one line of an early end.
            EXPECT_EQ(memory.err, memory.handle ? 0 : -1);
            if (!memory.handle) {
                EXPECT_EQ(memory.lastError, joined(memory.log));
            } else {
                std::vector<std::string> early;
                for (const std::string& l : memory.log)
                    if (l.rfind("Reading stopped at byte ", 0) == 0) early.push_back(l);
                EXPECT_LE(early.size(), 1u);
                EXPECT_EQ(memory.lastError, joined(early));
            }

            // Read into columns, the samples taken from the scan (no
            // options) and through the sample queue (every option) agree,
            // and the samples are those a cursor walk hands out.
            if (memory.handle) {
                LogCapture quiet;
                ORB_COLUMNS* reads[2] = {};
                for (int k = 0; k < 2; ++k)
                    reads[k] = orb_read_columns_memory(bytes.data(), bytes.size(), mode, load[0], load[1],
                                                       k ? ORB_COLUMNS_VELOCITIES | ORB_COLUMNS_CAMERA : 0,
                                                       nullptr, nullptr, nullptr, nullptr, nullptr);
                ASSERT_TRUE(reads[0] && reads[1]);
                EXPECT_TRUE(orbfuzz::sameColumns(reads[0], reads[1]));
                int err = 0;
                _ORBFILE* fresh = orb_open_memory(bytes.data(), bytes.size(), mode, load[0], load[1], &err);
                EXPECT_TRUE(orbfuzz::sameSamplesAsCursor(reads[0], fresh)) << "samples differ from the cursor's";
                orb_close_file(fresh);
                orb_free_columns(reads[0]);
                orb_free_columns(reads[1]);
            }
        }
    }
}

} // namespace

TEST(Corpus, EveryInputOpensAlikeFromDiskAndFromMemory)
{
    const std::vector<std::string> files = filesIn(ORBAPI_CORPUS_DIR);
    ASSERT_FALSE(files.empty()) << ORBAPI_CORPUS_DIR;
    for (const std::string& path : files)
        compareBothWays(path);
}

TEST(Corpus, EveryRecordingOfTheTestsOpensAlikeFromDiskAndFromMemory)
{
    const char* dir = std::getenv("ORBAPI_TEST_RECORDINGS");
    if (!dir)
        GTEST_SKIP() << "run through ctest, after the other tests";
    // ORBAPI_CORPUS_PART "k/n" takes every n-th recording from the k-th on,
    // so that ctest runs the parts side by side.
    size_t part = 0, parts = 1;
    if (const char* p = std::getenv("ORBAPI_CORPUS_PART"))
        if (std::sscanf(p, "%zu/%zu", &part, &parts) != 2 || parts == 0 || part >= parts)
            FAIL() << "ORBAPI_CORPUS_PART is not k/n: " << p;
    const std::vector<std::string> files = filesIn(dir);
    for (size_t i = part; i < files.size(); i += parts)
        compareBothWays(files[i]);
    RecordProperty("recordings", int(files.size()));
}
