// The columnar reader of the function interface: a whole recording into the
// columns of an ORB_COLUMNS in one call.
//
// The rows are the records a full cursor walk hands out: every index entry
// is stepped onto and read exactly as orb_get_next_data and
// orb_get_float_data do it, so that repairs, velocities and the time
// adjustment are those of the cursor by construction.

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <unordered_map>

#include "Columns.h"
#include "ORBException.h"
#include "ItemFormat.h"
#include "ORBFile.h"
#include "log.h"

using namespace columns;

namespace {

// The read was cancelled through the progress function.
struct Cancelled {};

constexpr size_t kProgressEvery = size_t(1) << 16;

// The values of the raw pupil and CR accessors for a copy of s.
void cameraValues(_ORBFILE* h, const FSAMPLE& s, CameraRow& c)
{
    FSAMPLE copy = s;
    for (int e = 0; e < 2; ++e) {
        c.pupilArea[e] = orb_get_uncorrected_pupil_area(h, &copy, e);
        c.crArea[e] = orb_get_uncorrected_cr_area(h, &copy, e);
        c.cr2Area[e] = orb_get_uncorrected_cr2_area(h, &copy, e);
        int dim[2];
        orb_get_pupil_dimension(h, &copy, e, dim);
        c.pupilWidth[e] = dim[0];
        c.pupilHeight[e] = dim[1];
        using Centre = void (*)(_ORBFILE*, FSAMPLE*, int, float*);
        const struct {
            Centre get;
            float* x;
            float* y;
        } centres[] = {
            {orb_get_uncorrected_raw_pupil, c.rawPupilX, c.rawPupilY},
            {orb_get_uncorrected_raw_cr, c.rawCrX, c.rawCrY},
            {orb_get_uncorrected_raw_cr2, c.rawCr2X, c.rawCr2Y},
            {[](_ORBFILE* h, FSAMPLE* s, int eye, float* xy) { orb_get_pupil_cr(h, s, eye, xy); }, c.pupilCrX,
             c.pupilCrY},
        };
        for (const auto& centre : centres) {
            float xy[2];
            centre.get(h, &copy, e, xy);
            centre.x[e] = xy[0];
            centre.y[e] = xy[1];
        }
    }
    int wh[2];
    orb_get_cr_dimension(h, &copy, wh);
    c.crWidth = wh[0];
    c.crHeight = wh[1];
    orb_get_window_position(h, &copy, wh);
    c.windowX = wh[0];
    c.windowY = wh[1];
}

// Makes the sample columns' pages present on a second thread, a stretch of
// rows at a time from the first, while the reader fills them: the system's
// work of providing fresh memory overlaps with decoding instead of
// interrupting it at every page.  Stops early when the reader is done.
class Prefaulter {
public:
    explicit Prefaulter(const Table& table)
    {
        if (table.capacity() < kRowsEach)
            return;
        thread_ = std::thread([this, &table] {
            for (size_t row = 0; row < table.capacity() && !stop_.load(std::memory_order_relaxed); row += kRowsEach)
                if (!table.prefault(row, row + kRowsEach))
                    return;
        });
    }
    ~Prefaulter()
    {
        stop_.store(true, std::memory_order_relaxed);
        if (thread_.joinable())
            thread_.join();
    }
    Prefaulter(const Prefaulter&) = delete;
    Prefaulter& operator=(const Prefaulter&) = delete;

private:
    static constexpr size_t kRowsEach = size_t(1) << 15;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class ColumnReader {
public:
    ColumnReader(ORBFile& file, int flags, orb_progress_function progress, void* user)
        : f_(file), flags_(flags), progress_(progress), user_(user)
    {
    }

    std::unique_ptr<ORB_COLUMNS> run();

private:
    void layout();
    void walk();
    void addTrials();
    void report(double fraction)
    {
        if (progress_ && progress_(fraction, user_) != 0)
            throw Cancelled();
    }
    // The trial whose index span holds index, or -1; indexes come in
    // increasing order.
    int32_t trialOf(size_t index);
    bool samplesInStreamOrder() const;
    // The sample of index entry `index` as the cursor hands it out before
    // its repairs, decoded straight from the stream (samplesInStreamOrder
    // holds) into sample_: false when the cursor hands out nothing.
    bool decodeSample(size_t index);

    ORBFile& f_;
    const int flags_;
    const orb_progress_function progress_;
    void* const user_;
    std::unique_ptr<ORB_COLUMNS> c_;
    std::unordered_map<const Recording*, int32_t> blockOf_;
    size_t trialAt_ = 0;
    Sample sample_; // the sample of the row at hand
};

std::unique_ptr<ORB_COLUMNS> ColumnReader::run()
{
    c_ = std::make_unique<ORB_COLUMNS>();
    layout();
    {
        Prefaulter ahead(c_->tables[ORB_TABLE_SAMPLES]);
        walk();
    }
    addTrials();
    for (Table& t : c_->tables)
        t.flush();
    c_->items = f_.items.size();
    if (f_.preambleText)
        c_->preamble.assign(f_.preambleText.get(), size_t(f_.preambleLength));
    c_->revision = int16_t(f_.trackerRevision);
    c_->oculantRevision = int16_t(f_.trackerModel);
    report(1.0);
    return std::move(c_);
}

void ColumnReader::layout()
{
    layoutSamples(c_->tables[ORB_TABLE_SAMPLES], flags_);
    layoutEvents(c_->tables[ORB_TABLE_EVENTS]);
    layoutBlocks(c_->tables[ORB_TABLE_BLOCKS]);
    layoutTrials(c_->tables[ORB_TABLE_TRIALS]);
    // At most one row per index entry of the table's kind.
    size_t samples = 0, events = 0, blocks = 0;
    for (const ORBItem& item : f_.items) {
        const unsigned code = item.code();
        if (code == SAMPLE)
            ++samples;
        else if (code == RECORDING)
            ++blocks;
        else if (isEventCode(code))
            ++events;
    }
    c_->tables[ORB_TABLE_SAMPLES].allocate(samples);
    c_->tables[ORB_TABLE_EVENTS].allocate(events);
    c_->tables[ORB_TABLE_BLOCKS].allocate(blocks);
    c_->tables[ORB_TABLE_TRIALS].allocate(f_.trials.size());
}

int32_t ColumnReader::trialOf(size_t index)
{
    const std::vector<ORBTrial>& trials = f_.trials;
    while (trialAt_ + 1 < trials.size() && trials[trialAt_ + 1].startIndex <= index)
        ++trialAt_;
    if (trialAt_ < trials.size() && trials[trialAt_].startIndex <= index && index < trials[trialAt_].endIndex)
        return int32_t(trialAt_);
    return -1;
}

// Whether the samples can be decoded from the stream one by one in index
// order, with the values the cursor takes from its sample queue, instead of
// through the queue.  So they can when the queue would hold just the
// stream's samples in stream order and decode each with the same state:
//  - the index holds every sample of the stream once, in stream order,
//    under strictly increasing keys (no placeholders, none dropped, none
//    filed under another key);
//  - every sample carries pupil sizes, or none does (the queue's carried
//    sizes then never differ from their starting ones);
//  - every block start sets the same scales whatever came before it, and
//    one is read before the first sample (the decoder's state at a sample
//    is then the same whichever items it decoded last).
// Velocities need the queue, which holds a sample's neighbours.
bool ColumnReader::samplesInStreamOrder() const
{
    const ORBFile::ScanFacts& facts = f_.scanFacts;
    if ((flags_ & ORB_COLUMNS_VELOCITIES) || !facts.uniformBlocks || facts.blockStarts == 0 ||
        (facts.pupilGroups != 0 && facts.pupilGroups != facts.samples))
        return false;
    uint64_t samples = 0;
    int64_t lastPosition = -1;
    uint64_t lastKey = 0;
    bool blockStarted = false;
    for (const ORBItem& item : f_.items) {
        const unsigned code = item.code();
        blockStarted = blockStarted || code == SSAMPLES || code == SEVENTS;
        if (code != SAMPLE)
            continue;
        if (!blockStarted || item.position <= lastPosition || (samples > 0 && item.key() <= lastKey))
            return false;
        lastPosition = item.position;
        lastKey = item.key();
        ++samples;
    }
    return samples == facts.samples;
}

bool ColumnReader::decodeSample(size_t index)
{
    const ORBItem& item = f_.items[index];
    // Copying a zero record compiles to a few wide stores; zeroing one in
    // place becomes a slow string instruction.
    static const FSAMPLE kZero{};
    Sample& s = sample_;
    std::memcpy(static_cast<void*>(&s.fs), &kZero, sizeof s.fs);
    f_.resetPosition(&item);
    if (f_.read_combfile_sample(&s, unsigned(item.key() >> 1), 0) < 0) {
        orb_log("Read error \n");
        return false;
    }
    // As the queue's carry gives them, every sample or none having them.
    if (!(s.fs.flags & kPupilGroup))
        s.fs.pupilSize[0] = s.fs.pupilSize[1] = SampleQueue::kCarriedPupilStart;
    f_.inBlock(s);
    return true;
}

void ColumnReader::walk()
{
    _ORBFILE* const handle = reinterpret_cast<_ORBFILE*>(&f_);
    Table& samples = c_->tables[ORB_TABLE_SAMPLES];
    Table& events = c_->tables[ORB_TABLE_EVENTS];
    Table& blocks = c_->tables[ORB_TABLE_BLOCKS];
    const bool camera = flags_ & ORB_COLUMNS_CAMERA;
    const size_t total = f_.items.size();

    PlaceRow place{};
    TextRow text{};
    CameraRow cam{};
    const void* sources[kSources] = {};
    sources[kFromPlace] = &place;
    sources[kFromText] = &text;
    sources[kFromCamera] = &cam;

    const bool velocities = flags_ & ORB_COLUMNS_VELOCITIES;
    const bool direct = samplesInStreamOrder();
    int32_t block = -1;     // the block the rows lie in
    int32_t nextBlock = 0;  // the number of the next block start
    FSAMPLE& fs = sample_.fs; // the row's sample, repaired in place
    int slot = -1; // the queue slot of the last sample handed out
    int code;
    while ((code = f_.stepNext()) != NO_MORE_ITEMS) {
        const size_t index = size_t(f_.current - 1);
        if (index % kProgressEvery == 0 && index != 0)
            report(double(index) / double(total));
        place.index = int32_t(index);
        if (code == SAMPLE) {
            // As getFloatData and adjustTimes hand it out, straight from
            // the queue, velocities only when they are wanted.
            const ORBItem& item = f_.items[index];
            try {
                if (direct) {
                    if (!decodeSample(index))
                        continue;
                } else {
                    const Sample* s = f_.queuedSample(int(index), velocities, &slot);
                    if (!s) {
                        orb_log("Read error \n");
                        continue;
                    }
                    fs = s->fs;
                }
            } catch (const ORBException& e) {
                orb_log("Error %s \n", e.what());
                continue;
            }
            finishSample(fs, item);
            f_.adjustTime(fs.time);
            place.block = block;
            place.trial = trialOf(index);
            if (camera)
                cameraValues(handle, fs, cam);
            sources[kFromSample] = &fs;
            samples.append(sources);
            continue;
        }
        ALLF_DATA* d = f_.getFloatData();
        if (!d)
            continue; // the cursor hands out nothing here: no row
        f_.adjustTimes(d);
        if (code == RECORDING) {
            const ORBItem& item = f_.items[index];
            if (d->rec.state == 1) {
                block = nextBlock++;
                blockOf_.emplace(item.rec, block);
            }
            place.block = block;
            place.trial = -1;
            if (d->rec.state != 1)
                block = -1;
            sources[kFromBlock] = &d->rec;
            blocks.append(sources);
            continue;
        }
        place.block = block;
        place.trial = trialOf(index);
        const ORB_MESSAGE* m = d->fe.message;
        text.offset = c_->text.size();
        text.length = 0;
        if (m) {
            text.length = uint32_t(std::clamp<int>(m->length, 0, int(sizeof m->text)));
            c_->text.append(m->text, text.length);
        }
        sources[kFromEvent] = &d->fe;
        events.append(sources);
    }
}

void ColumnReader::addTrials()
{
    Table& t = c_->tables[ORB_TABLE_TRIALS];
    TrialRow row{};
    const void* sources[kSources] = {};
    sources[kFromTrial] = &row;
    for (const ORBTrial& trial : f_.trials) {
        auto it = blockOf_.find(trial.rec);
        row.block = trial.rec && it != blockOf_.end() ? it->second : -1;
        row.duration = trial.trialWord;
        row.startTime = trial.startTime;
        row.endTime = trial.endTime;
        row.startIndex = trial.startIndex;
        row.endIndex = trial.endIndex;
        t.append(sources);
    }
}

const Table* tableOf(const ORB_COLUMNS* c, int table)
{
    if (!c || table < ORB_TABLE_SAMPLES || table > ORB_TABLE_TRIALS)
        return nullptr;
    return &c->tables[table];
}

// Opens the recording with open(), builds its trial list and reads it into
// columns.  Failures are logged, counted in *errval and kept as the thread's
// last error.
template <class Open>
ORB_COLUMNS* readColumns(Open open, int flags, const char* trialStart, const char* trialEnd,
                         orb_progress_function progress, void* user, int* errval)
{
    LastErrorScope scope;
    int err = -1;
    try {
        std::unique_ptr<ORBFile> f = open();
        const std::string startId = trialStart ? trialStart : "TRIALID";
        const std::string endId = trialEnd ? trialEnd : "";
        f->trialStartId = startId.c_str();
        f->trialEndId = trialEnd ? endId.c_str() : nullptr;
        f->collectTrials();
        ORB_COLUMNS* result = ColumnReader(*f, flags, progress, user).run().release();
        scope.succeeded();
        if (errval)
            *errval = 0;
        return result;
    } catch (const ORBException& e) {
        orb_log("%s\n", e.what());
    } catch (const Cancelled&) {
        err = -2;
        orb_log("Cancelled\n");
    } catch (const std::bad_alloc&) {
        err = -3;
        orb_log("%s\n", "Out of memory");
    } catch (...) {
        orb_log("%s\n", "Unexpected error while opening");
    }
    if (errval)
        *errval = err;
    return nullptr;
}

} // namespace

extern "C" {

ORB_COLUMNS* orb_read_columns(const char* fname, int consistency, int loadevents, int loadsamples,
                              int flags, const char* trial_start, const char* trial_end,
                              orb_progress_function progress, void* user, int* errval)
{
    return readColumns(
        [&] {
            if (!fname)
                throw ORBException("File Could not be opened!");
            return std::make_unique<ORBFile>(fname, consistency, loadevents != 0, loadsamples != 0);
        },
        flags, trial_start, trial_end, progress, user, errval);
}

ORB_COLUMNS* orb_read_columns_memory(const void* data, size_t size, int consistency, int loadevents,
                                     int loadsamples, int flags, const char* trial_start,
                                     const char* trial_end, orb_progress_function progress,
                                     void* user, int* errval)
{
    return readColumns(
        [&] {
            return std::make_unique<ORBFile>(data, size, consistency, loadevents != 0,
                                             loadsamples != 0);
        },
        flags, trial_start, trial_end, progress, user, errval);
}

void orb_free_columns(ORB_COLUMNS* c) { delete c; }

size_t orb_columns_rows(const ORB_COLUMNS* c, int table)
{
    const Table* t = tableOf(c, table);
    return t ? t->rows() : 0;
}

int orb_columns_count(const ORB_COLUMNS* c, int table)
{
    const Table* t = tableOf(c, table);
    return t ? int(t->columns().size()) : 0;
}

int orb_columns_column(const ORB_COLUMNS* c, int table, int i, ORB_COLUMN* out)
{
    const Table* t = tableOf(c, table);
    return t && i >= 0 && t->describe(size_t(i), out) ? 0 : -1;
}

int orb_columns_find(const ORB_COLUMNS* c, int table, const char* name, ORB_COLUMN* out)
{
    const Table* t = tableOf(c, table);
    if (!t || !name)
        return -1;
    const auto& cols = t->columns();
    for (size_t i = 0; i < cols.size(); ++i)
        if (cols[i].name == name)
            return t->describe(i, out) ? 0 : -1;
    return -1;
}

const char* orb_columns_text(const ORB_COLUMNS* c, size_t* size)
{
    const size_t n = c ? c->text.size() : 0;
    if (size)
        *size = n;
    return n ? c->text.data() : nullptr;
}

const char* orb_columns_preamble(const ORB_COLUMNS* c) { return c ? c->preamble.c_str() : ""; }
int orb_columns_revision(const ORB_COLUMNS* c) { return c ? c->revision : 0; }
int orb_columns_oculant_revision(const ORB_COLUMNS* c) { return c ? c->oculantRevision : 0; }
size_t orb_columns_items(const ORB_COLUMNS* c) { return c ? c->items : 0; }

size_t orb_column_type_size(int type) { return columns::typeSize(type); }

} // extern "C"
