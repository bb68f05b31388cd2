// Trials: stretches of the index that the experiment marks with messages,
// or whole recording blocks when it does not.
#include <cstring>
#include <string_view>

#include "ORBFile.h"

namespace {

// The text of a message record: the stored bytes up to the last one (the
// terminator's place) or the first zero.
std::string_view messageText(const ALLF_DATA* data)
{
    const ORB_MESSAGE* m = data ? data->fe.message : nullptr;
    if (!m || m->length <= 1)
        return {};
    size_t n = size_t(m->length - 1);
    const void* zero = std::memchr(m->text, 0, n);
    if (zero)
        n = size_t(static_cast<const char*>(zero) - m->text);
    return std::string_view(m->text, n);
}

bool contains(std::string_view text, const char* id)
{
    return id && text.find(id) != std::string_view::npos;
}

void closeTrial(ORBTrial& t, Recording* rec, uint32_t endTime)
{
    t.rec = rec;
    t.endTime = endTime;
    t.trialWord = t.endTime - t.startTime;
}

} // namespace

void ORBFile::collectTrials()
{
    trials.clear();
    trialsCollected = true;

    Recording* pending = nullptr; // block start of the trial being built
    long lastBlockStart = -1;
    bool closed = true;
    bool openedByBlock = false;
    bool inTrial = false;

    auto fillPending = [&] {
        if (!pending && lastBlockStart > 0)
            pending = index.items[size_t(lastBlockStart)].rec;
    };
    auto openAt = [&](size_t e) {
        uint64_t start = index.items[e].key() / 2;
        trials.push_back(ORBTrial{nullptr, 0, uint32_t(start), uint32_t(start >> 32), uint32_t(e), 0});
        openedByBlock = true;
        closed = false;
        inTrial = true;
        pending = nullptr;
    };

    const size_t n = index.items.size();
    for (size_t e = 0; e < n; ++e) {
        const ORBItem& item = index.items[e];
        uint32_t time = uint32_t(item.key() / 2);

        if (item.code() == MESSAGE) {
            // Read the message as the cursor would hand it out.
            int32_t savedCurrent = current;
            bool savedRequested = itemRequested;
            current = int32_t(e + 1);
            itemRequested = true;
            std::string_view text = messageText(getFloatData());
            current = savedCurrent;
            itemRequested = savedRequested;

            if (contains(text, trialStartId) && !inTrial) {
                if (trials.empty()) {
                    inTrial = true;
                    if (!openedByBlock)
                        openAt(e);
                    continue;
                }
                fillPending();
                if (closed || !pending) {
                    inTrial = true;
                    if (!openedByBlock && trials.back().rec)
                        openAt(e);
                } else {
                    ORBTrial& t = trials.back();
                    t.endIndex = uint32_t(e - 1);
                    closeTrial(t, pending, time);
                    closed = true;
                    pending = nullptr;
                    openAt(e);
                }
            } else if (contains(text, trialEndId) && !trials.empty()) {
                fillPending();
                ORBTrial& t = trials.back();
                t.endIndex = uint32_t(e + 1);
                if (!closed && pending) {
                    closeTrial(t, pending, time);
                    closed = true;
                    openedByBlock = false;
                    inTrial = false;
                    pending = nullptr;
                }
                inTrial = false;
            }
        } else if (item.isRecording() && item.rec->state == 0) {
            fillPending();
            inTrial = false;
            if (!closed && !trials.empty()) {
                ORBTrial& t = trials.back();
                t.endIndex = uint32_t(e + 1);
                closeTrial(t, pending, time);
                closed = true;
                openedByBlock = false;
                pending = nullptr;
            }
        } else if (item.isRecording()) {
            lastBlockStart = long(e);
            pending = item.rec;
            if (openedByBlock) {
                inTrial = true;
            } else if (trials.empty() || trials.back().rec) {
                openAt(e);
                pending = item.rec;
            } else {
                inTrial = true;
            }
        }
    }

    if (!trials.empty() && !closed) {
        if (!pending) {
            trials.pop_back();
        } else {
            trials.back().endIndex = uint32_t(n);
            trials.back().rec = pending;
        }
    }
}

int ORBFile::jumpToTrial(int trial)
{
    if (!trialsCollected)
        collectTrials();
    if (trial < 0 || size_t(trial) >= trials.size())
        return -1;
    currentTrial = trial;
    current = int32_t(trials[size_t(trial)].startIndex);
    return 0;
}

int ORBFile::gotoTrialWithStartTime(unsigned int time)
{
    return jumpToFirstTrial(&ORBTrial::startTime, time);
}

int ORBFile::gotoTrialWithEndTime(unsigned int time)
{
    return jumpToFirstTrial(&ORBTrial::endTime, time);
}

// Jumps to the first trial whose start or end time (member) equals time.
int ORBFile::jumpToFirstTrial(uint32_t ORBTrial::*member, unsigned int time)
{
    if (!trialsCollected)
        collectTrials();
    for (size_t i = 0; i < trials.size(); ++i)
        if (trials[i].*member == time)
            return jumpToTrial(int(i));
    return -1;
}

int ORBFile::gotoNextTrial()
{
    if (!trialsCollected)
        collectTrials();
    return jumpToTrial(currentTrial + 1);
}

int ORBFile::gotoPreviousTrial()
{
    if (!trialsCollected)
        collectTrials();
    return jumpToTrial(currentTrial - 1);
}

ORBTrial* ORBFile::getTrialHeaders()
{
    if (!trialsCollected)
        collectTrials();
    if (uint32_t(currentTrial) < trials.size())
        return &trials[size_t(currentTrial)];
    return nullptr;
}

int ORBFile::getTrialHeaders(TRIAL* out)
{
    if (!out)
        return -1;
    ORBTrial* t = getTrialHeaders();
    if (!t)
        return -1;
    out->rec = t->rec;
    out->trialWord = t->trialWord;
    out->startTime = t->startTime;
    out->endTime = t->endTime;
    return 0;
}

float ORBFile::getGazePrescaler(unsigned int time)
{
    if (!trialsCollected)
        collectTrials();
    for (size_t i = trials.size(); i-- > 0;) {
        const ORBTrial& t = trials[i];
        if (t.startTime <= time && time <= t.endTime) {
            if (!t.rec)
                return 0.0f;
            // A sample block's start keeps the gaze divisor's bits.
            float scale;
            std::memcpy(&scale, &t.rec->itemRef, sizeof scale);
            return scale;
        }
    }
    return 0.0f;
}
