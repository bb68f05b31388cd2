// Trials and bookmarks through the function interface.
#include <gtest/gtest.h>

#include <string>

#include "Recordings.h"
#include "orbapi.h"

using namespace orbtest;

namespace {

struct File {
    explicit File(const OrbWriter& w, int consistency = 0)
    {
        int err = 0;
        path = w.write();
        f = orb_open_file(path.c_str(), consistency, 1, 1, &err);
        EXPECT_EQ(err, 0);
    }
    ~File() { orb_close_file(f); }
    operator _ORBFILE*() const { return f; }

    std::string path;
    _ORBFILE* f = nullptr;
};

TRIAL header(_ORBFILE* f)
{
    TRIAL t{};
    EXPECT_EQ(orb_get_trial_header(f, &t), 0);
    return t;
}

// The text of the message the cursor stands on after one step.
std::string nextMessage(_ORBFILE* f)
{
    if (orb_get_next_data(f) != MESSAGE)
        return "(not a message)";
    FEVENT* e = orb_get_event(orb_get_float_data(f));
    return std::string(e->message->text, size_t(e->message->length));
}

// Two blocks, each preceded by its TRIALID message; a result message inside.
OrbWriter twoTrials(bool secondStartInside = false)
{
    OrbWriter w;
    for (int trial = 0; trial < 2; ++trial) {
        uint32_t t0 = 1000 + 1000 * uint32_t(trial);
        w.add(message(t0 - 10, "TRIALID " + std::to_string(trial + 1) + "\n"));
        addBlock(w, t0, 10, 500.0, [&](int i, uint32_t t) {
            if (i == 2 && secondStartInside) w.add(message(t + 1, "TRIALID again\n"));
            if (i == 5) w.add(message(t + 1, "TRIAL OK\n"));
        });
    }
    return w;
}

} // namespace

TEST(Trials, EveryBlockIsATrialWithoutStartMessages)
{
    OrbWriter w;
    addBlock(w, 1000, 10);
    addBlock(w, 2000, 10);
    File f(w);
    ASSERT_EQ(orb_get_trial_count(f), 2);
    ASSERT_EQ(orb_jump_to_trial(f, 1), 0);
    TRIAL t = header(f);
    EXPECT_EQ(t.startTime, 2000u);
    EXPECT_EQ(t.endTime, 2019u);
    EXPECT_EQ(t.trialWord, 19u);
    ASSERT_NE(t.rec, nullptr);
    EXPECT_EQ(t.rec->state, 1);
    EXPECT_EQ(t.rec->time, 2000u);
    // The trial starts at its block's start.
    EXPECT_EQ(orb_get_next_data(f), RECORDING);
}

TEST(Trials, StartMessagesOpenTrialsAndBlockEndsCloseThem)
{
    for (bool secondStartInside : {false, true}) {
        File f(twoTrials(secondStartInside));
        ASSERT_EQ(orb_get_trial_count(f), 2) << secondStartInside;
        ASSERT_EQ(orb_jump_to_trial(f, 0), 0);
        TRIAL t = header(f);
        EXPECT_EQ(t.startTime, 990u);
        EXPECT_EQ(t.endTime, 1019u);
        EXPECT_EQ(nextMessage(f), "TRIALID 1\n");
        ASSERT_EQ(orb_jump_to_trial(f, 1), 0);
        EXPECT_EQ(header(f).startTime, 1990u);
        EXPECT_EQ(nextMessage(f), "TRIALID 2\n");
    }
}

TEST(Trials, EndIdentifierClosesTheTrialAtItsMessage)
{
    File f(twoTrials());
    char start[] = "TRIALID", end[] = "TRIAL OK";
    EXPECT_EQ(orb_set_trial_identifier(f, start, end), 0);
    EXPECT_EQ(orb_get_start_trial_identifier(f), start);
    EXPECT_EQ(orb_get_end_trial_identifier(f), end);
    ASSERT_EQ(orb_get_trial_count(f), 2);
    ASSERT_EQ(orb_jump_to_trial(f, 0), 0);
    TRIAL t = header(f);
    EXPECT_EQ(t.startTime, 990u);
    EXPECT_EQ(t.endTime, 1011u);
    EXPECT_EQ(t.trialWord, 21u);

    // Other start texts select other messages.
    char other[] = "TRIAL OK";
    orb_set_trial_identifier(f, other, nullptr);
    ASSERT_EQ(orb_jump_to_trial(f, 0), 0);
    EXPECT_EQ(header(f).startTime, 1000u); // the block start opened it first
}

TEST(Trials, LookupsByTime)
{
    File f(twoTrials());
    EXPECT_EQ(orb_get_element_index(f), 0);
    EXPECT_EQ(orb_goto_trial_with_start_time(f, 991), -1);
    EXPECT_EQ(orb_goto_trial_with_end_time(f, 2018), -1);
    EXPECT_EQ(orb_get_element_index(f), 0);
    EXPECT_EQ(orb_goto_trial_with_end_time(f, 2019), 0);
    EXPECT_EQ(header(f).startTime, 1990u);
    EXPECT_EQ(orb_goto_trial_with_start_time(f, 990), 0);
    EXPECT_EQ(header(f).endTime, 1019u);
    EXPECT_EQ(nextMessage(f), "TRIALID 1\n");
}

TEST(Trials, NextAndPreviousStopAtTheEnds)
{
    File f(twoTrials());
    TRIAL untouched{};
    untouched.startTime = 77;
    EXPECT_EQ(orb_get_trial_header(f, &untouched), -1);
    EXPECT_EQ(untouched.startTime, 77u);
    EXPECT_EQ(orb_get_trial_header(f, nullptr), -1);

    EXPECT_EQ(orb_goto_previous_trial(f), -1);
    EXPECT_EQ(orb_goto_next_trial(f), 0);
    EXPECT_EQ(header(f).startTime, 990u);
    EXPECT_EQ(orb_goto_next_trial(f), 0);
    EXPECT_EQ(orb_goto_next_trial(f), -1);
    EXPECT_EQ(header(f).startTime, 1990u);
    EXPECT_EQ(orb_goto_previous_trial(f), 0);
    EXPECT_EQ(orb_goto_previous_trial(f), -1);
    EXPECT_EQ(header(f).startTime, 990u);
    EXPECT_EQ(orb_jump_to_trial(f, 2), -1);
    EXPECT_EQ(orb_jump_to_trial(f, -1), -1);
}

TEST(Bookmarks, SetGoAndRemove)
{
    OrbWriter w;
    addBlock(w, 1000, 10);
    File f(w);
    const int count = orb_get_element_count(f);

    BOOKMARK a{0xDEAD}, again{0xDEAD}, b{0}, c{0};
    for (int i = 0; i < 3; ++i) orb_get_next_data(f);
    EXPECT_EQ(orb_set_bookmark(f, &a), 0);
    EXPECT_EQ(a.id, 3u);
    EXPECT_EQ(orb_set_bookmark(f, &again), 0); // same place: kept once
    EXPECT_EQ(again.id, 0xDEADu);
    for (int i = 0; i < 2; ++i) orb_get_next_data(f);
    EXPECT_EQ(orb_set_bookmark(f, &b), 0);
    orb_get_next_data(f);
    EXPECT_EQ(orb_set_bookmark(f, &c), 0);
    EXPECT_EQ(orb_set_bookmark(f, nullptr), -1);

    EXPECT_EQ(orb_goto_previous_bookmark(f), -1); // none gone to yet
    EXPECT_EQ(orb_goto_next_bookmark(f), 0);
    EXPECT_EQ(orb_get_element_index(f), 3);
    EXPECT_EQ(orb_goto_previous_bookmark(f), -1); // at the first
    EXPECT_EQ(orb_get_element_index(f), 3);
    EXPECT_EQ(orb_goto_bookmark(f, &c), 0);
    EXPECT_EQ(orb_get_element_index(f), 6);
    EXPECT_EQ(orb_goto_next_bookmark(f), -1); // at the last
    EXPECT_EQ(orb_get_element_index(f), 6);
    EXPECT_EQ(orb_goto_previous_bookmark(f), 0);
    EXPECT_EQ(orb_get_element_index(f), 5);

    // Removing one after the current leaves the current; at or before it
    // moves it back.
    EXPECT_EQ(orb_free_bookmark(f, &c), 0);
    EXPECT_EQ(orb_free_bookmark(f, &c), -1);
    EXPECT_EQ(orb_goto_next_bookmark(f), -1);
    EXPECT_EQ(orb_free_bookmark(f, &b), 0); // the current one
    EXPECT_EQ(orb_goto_next_bookmark(f), -1);
    EXPECT_EQ(orb_goto_bookmark(f, &b), -1);
    EXPECT_EQ(orb_goto_bookmark(f, &a), 0);
    BOOKMARK unknown{1234};
    EXPECT_EQ(orb_goto_bookmark(f, &unknown), -1);
    EXPECT_EQ(orb_free_bookmark(f, nullptr), -1);

    // Past the last item no bookmark can be set.
    while (orb_get_next_data(f) != NO_MORE_ITEMS) {}
    EXPECT_EQ(orb_get_element_index(f), count);
    BOOKMARK end{0xDEAD};
    EXPECT_EQ(orb_set_bookmark(f, &end), -1);
    EXPECT_EQ(end.id, 0xDEADu);
}

TEST(Bookmarks, RemovingBeforeTheCurrentMovesItBack)
{
    OrbWriter w;
    addBlock(w, 1000, 10);
    File f(w);
    BOOKMARK m[3];
    for (BOOKMARK& b : m) {
        orb_get_next_data(f);
        ASSERT_EQ(orb_set_bookmark(f, &b), 0);
    }
    ASSERT_EQ(orb_goto_bookmark(f, &m[2]), 0);
    ASSERT_EQ(orb_free_bookmark(f, &m[0]), 0);
    // The current bookmark is still m[2], now the second of two.
    EXPECT_EQ(orb_goto_previous_bookmark(f), 0);
    EXPECT_EQ(orb_get_element_index(f), int(m[1].id));
    EXPECT_EQ(orb_goto_next_bookmark(f), 0);
    EXPECT_EQ(orb_get_element_index(f), int(m[2].id));
}
