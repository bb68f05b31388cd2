// The columnar reader of the function interface: a whole recording into the
// columns of an ORB_COLUMNS in one call.
//
// The rows are the records a full cursor walk hands out: every index entry
// is stepped onto and read exactly as orb_get_next_data and
// orb_get_float_data do it, so that repairs, velocities and the time
// adjustment are those of the cursor by construction.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <unordered_map>

#include "Columns.h"
#include "base.h"
#include "items.h"
#include "cursor.h"

using namespace columns;

namespace {

// The read was cancelled through the progress function.
struct Cancelled {};

constexpr size_t kProgressEvery = size_t(1) << 16;

// Makes the pages of a table's columns present on a second thread, a
// stretch of rows at a time: the system's work of providing fresh memory is
// done there instead of interrupting the writer at every page.  `bounded`:
// the table has room for far more rows than it will get, so pages are made
// present only a little ahead of the rows written (pages ahead count as
// memory held); otherwise as far ahead as the thread gets.  Stops when the
// reader is done, or where the system cannot.
class Prefaulter {
public:
    Prefaulter(const Table& table, bool bounded)
    {
        if (table.capacity() < kRowsEach)
            return;
        thread_ = std::thread([this, &table, bounded] {
            for (size_t row = 0; row < table.capacity() && !stop_.load(std::memory_order_relaxed);) {
                if (bounded && row + kRowsEach > table.flushedRows() + kRowsAhead) {
                    std::this_thread::sleep_for(std::chrono::microseconds(100));
                    continue;
                }
                if (!table.prefault(row, row + kRowsEach))
                    return;
                row += kRowsEach;
            }
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
    static constexpr size_t kRowsEach = size_t(1) << 14;
    static constexpr size_t kRowsAhead = 2 * kRowsEach;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// The smallest sample item: its tag word and a one-byte time step.
constexpr uint64_t kSmallestSample = 3;
// The most sample rows reserved while the pre-scan runs (address space,
// not memory); a stream with more takes its samples through the queue.
constexpr uint64_t kMostScannedRows = uint64_t(1) << 31;
// The share of the progress the pre-scan stands for when it decodes the
// samples.
constexpr double kScanShare = 0.75;

// Reads a recording into columns.  The samples come from one of two
// sources, with the same values:
//  - the pre-scan (as the ScannedSamples receiver), which decodes every
//    sample it indexes, in stream order, straight into the sample rows;
//    they are kept when the index hands out exactly those samples in that
//    order (samplesInStreamOrder), and the walk then only completes them;
//  - otherwise the cursor's sample queue, sample by sample, as the walk
//    steps onto them (always with velocities, which need a sample's
//    neighbours, and with the camera values, which need the open file).
//
// Only the columns asked for are made; velocities and camera values are
// computed only for a column of theirs.  A window is read from the first
// index entry at or after its start to the first at or after its end; the
// block starts and events before it are stepped over as the whole walk
// does (without rows), so that the window's rows carry the same block
// numbers and event repairs.
class ColumnReader final : public ScannedSamples {
public:
    // Throws ORBException for options that name no column or no window.
    explicit ColumnReader(const ORB_READ_OPTIONS& options);

    // The receiver to open the file with: null when the queue must serve.
    ScannedSamples* scanned() { return flags_ & (ORB_COLUMNS_VELOCITIES | ORB_COLUMNS_CAMERA) || window_ ? nullptr : this; }
    std::unique_ptr<ORB_COLUMNS> run(ORBFile& file);

    void begin(int64_t bytes) override;
    Sample* next() override;
    void sample(int32_t position) override;
    void end(const ScanFacts& facts) override
    {
        facts_ = facts;
        scanning_ = scanning_ && facts.positionsAreOffsets;
    }

private:
    // Allocates the tables, but for the sample rows when they are kept.
    void allocate(bool keepSamples, size_t first, size_t last);
    void walk(bool scannedRows, size_t first, size_t last);
    // Settles the time adjustment as the whole walk does (by the first
    // record it hands out) and returns the first index entry at or after
    // the handed-out time `ms`.
    size_t seek(int64_t ms);
    // Completes the scanned row of the sample at index entry `index` as
    // the cursor hands it out there.
    void completeScannedRow(size_t index, int32_t block);
    void addTrials(size_t first, size_t last);
    void report(double fraction)
    {
        fraction = std::max(fraction, reported_);
        reported_ = fraction;
        if (progress_ && progress_(fraction, user_) != 0)
            throw Cancelled();
    }
    // The trial whose index span holds index, or -1; indexes come in
    // increasing order.
    int32_t trialOf(size_t index);
    bool samplesInStreamOrder() const;

    ORBFile* f_ = nullptr;
    int flags_; // those of the options the chosen columns need
    const bool window_;
    const int64_t start_, end_;
    const orb_progress_function progress_;
    void* const user_;
    double reported_ = 0.0;
    std::unique_ptr<ORB_COLUMNS> c_;
    std::unordered_map<const Recording*, int32_t> blockOf_;
    size_t trialAt_ = 0;
    Sample sample_; // the sample of the row at hand

    // The rows the pre-scan fills.
    bool scanning_ = false; // rows are taken from the scan
    ScanFacts facts_; // what the scan learned (when it ran with this receiver)
    double scanBytes_ = 0;
    size_t scannedCount_ = 0; // samples the scan handed over
    std::unique_ptr<Prefaulter> scanPages_; // of the rows the scan fills
    Sample* staged_ = nullptr; // the record the scan decodes into
    Sample unused_;            // that record once the rows are not kept
    PlaceRow noPlace_{};
    const void* scanSources_[kSources] = {};
    size_t scannedRow_ = 0; // the next row the walk completes
    // The columns the walk completes in the scanned rows.
    struct {
        uint32_t* time;
        uint16_t* flags;
        int32_t *index, *block, *trial;
    } scannedColumns_{};
};

// Whether `t` makes a column of a member of `record` that needs `flag`.
bool makesAny(const Table& t, int record, int flag)
{
    int n = 0;
    const ORB_MEMBER* m = orb_record_members(record, &n);
    for (int i = 0; i < n; ++i)
        if (m[i].flag == flag && t.has(m[i].name))
            return true;
    return false;
}

ColumnReader::ColumnReader(const ORB_READ_OPTIONS& o)
    : flags_(o.flags), window_(o.window != 0), start_(o.start), end_(o.end), progress_(o.progress),
      user_(o.user), c_(std::make_unique<ORB_COLUMNS>())
{
    if (window_ && o.start > o.end)
        throw ORBException("The window starts at %lld ms, after its end at %lld ms", (long long)o.start,
                           (long long)o.end);
    Table& samples = c_->tables[ORB_TABLE_SAMPLES];
    layoutSamples(samples, flags_);
    layoutEvents(c_->tables[ORB_TABLE_EVENTS]);
    layoutBlocks(c_->tables[ORB_TABLE_BLOCKS]);
    layoutTrials(c_->tables[ORB_TABLE_TRIALS]);
    static const char* const kNames[] = {"samples", "events", "blocks", "trials"};
    for (int t = ORB_TABLE_SAMPLES; t <= ORB_TABLE_TRIALS; ++t)
        if (o.columns[t])
            // Samples taken from the scan are completed by their time.
            c_->tables[t].select(o.columns[t], t == ORB_TABLE_SAMPLES ? std::vector<std::string>{"time"}
                                                                       : std::vector<std::string>{},
                                 kNames[t]);
    if (!makesAny(samples, ORB_RECORD_SAMPLE, ORB_COLUMNS_VELOCITIES))
        flags_ &= ~ORB_COLUMNS_VELOCITIES;
    if (!makesAny(samples, ORB_RECORD_CAMERA, ORB_COLUMNS_CAMERA))
        flags_ &= ~ORB_COLUMNS_CAMERA;
    scanSources_[kFromPlace] = &noPlace_;
}

void ColumnReader::begin(int64_t bytes)
{
    if (bytes <= 0)
        return;
    // As many rows as the stream could hold samples: address space only.
    const uint64_t rows = std::min(uint64_t(bytes) / kSmallestSample + 1, kMostScannedRows);
    try {
        c_->tables[ORB_TABLE_SAMPLES].allocate(size_t(rows));
    } catch (const std::bad_alloc&) {
        return; // the queue serves
    }
    scanning_ = true;
    scanBytes_ = double(bytes);
    scanPages_ = std::make_unique<Prefaulter>(c_->tables[ORB_TABLE_SAMPLES], true);
}

static_assert(sizeof(Sample) == sizeof(FSAMPLE), "a sample is decoded in place of the row's record");

Sample* ColumnReader::next()
{
    Table& samples = c_->tables[ORB_TABLE_SAMPLES];
    if (scanning_ && samples.full())
        scanning_ = false; // a body that inflated beyond its guess: the queue serves
    // The row being gathered, or a record of its own once the queue serves.
    staged_ = scanning_ ? new (samples.pendingRecord(kFromSample)) Sample : new (&unused_) Sample;
    return staged_;
}

void ColumnReader::sample(int32_t position)
{
    if (!scanning_)
        return;
    // As the queue's carry gives them, every sample or none having them.
    FSAMPLE& fs = staged_->fs;
    if (!(fs.flags & kPupilGroup))
        fs.pupilSize[0] = fs.pupilSize[1] = SampleQueue::kCarriedPupilStart;
    c_->tables[ORB_TABLE_SAMPLES].appendFilled(kFromSample, scanSources_);
    if (++scannedCount_ % kProgressEvery == 0)
        report(kScanShare * std::min(1.0, double(position) / scanBytes_));
}

std::unique_ptr<ORB_COLUMNS> ColumnReader::run(ORBFile& file)
{
    f_ = &file;
    Table& samples = c_->tables[ORB_TABLE_SAMPLES];
    samples.flush();
    scanPages_.reset();
    const bool scannedRows = scanning_ && samplesInStreamOrder();
    size_t first = 0, last = f_->index.items.size();
    if (window_) {
        first = seek(start_);
        last = std::max(first, seek(end_));
    }
    allocate(scannedRows, first, last);
    if (scannedRows) {
        auto column = [&](const char* name) { return reinterpret_cast<void*>(samples.columnData(name)); };
        scannedColumns_.time = static_cast<uint32_t*>(column("time"));
        scannedColumns_.flags = static_cast<uint16_t*>(column("flags"));
        scannedColumns_.index = static_cast<int32_t*>(column("index"));
        scannedColumns_.block = static_cast<int32_t*>(column("block"));
        scannedColumns_.trial = static_cast<int32_t*>(column("trial"));
    }
    {
        // The queue's rows are written as the walk goes.
        std::unique_ptr<Prefaulter> ahead;
        if (!scannedRows)
            ahead = std::make_unique<Prefaulter>(samples, false); // every row of it will be written
        walk(scannedRows, first, last);
    }
    // A walk that ended early (an item of code 0 ends the cursor's walk
    // too) leaves the scanned rows after it out.
    if (scannedRows)
        samples.truncate(scannedRow_);
    addTrials(first, last);
    for (Table& t : c_->tables)
        t.flush();
    c_->items = f_->index.items.size();
    if (f_->preambleText)
        c_->preamble.assign(f_->preambleText.get(), size_t(f_->preambleLength));
    c_->revision = int16_t(f_->decoder.trackerRevision);
    c_->oculantRevision = int16_t(f_->decoder.trackerModel);
    report(1.0);
    return std::move(c_);
}

void ColumnReader::allocate(bool keepSamples, size_t first, size_t last)
{
    // At most one row per index entry of the table's kind.
    size_t samples = 0, events = 0, blocks = 0;
    for (size_t i = first; i < last; ++i) {
        const unsigned code = f_->index.items[i].code();
        if (code == SAMPLE)
            ++samples;
        else if (code == RECORDING)
            ++blocks;
        else if (isEventCode(code))
            ++events;
    }
    if (!keepSamples)
        c_->tables[ORB_TABLE_SAMPLES].allocate(samples);
    c_->tables[ORB_TABLE_EVENTS].allocate(events);
    c_->tables[ORB_TABLE_BLOCKS].allocate(blocks);
    c_->tables[ORB_TABLE_TRIALS].allocate(f_->trials.size());
}

size_t ColumnReader::seek(int64_t ms)
{
    const std::vector<ORBItem>& items = f_->index.items;
    for (size_t i = 0; i < items.size() && f_->timeOffset == 0 && !f_->timeFixupOff; ++i) {
        if (f_->stepFrom(int32_t(i)) == NO_MORE_ITEMS)
            break;
        if (ALLF_DATA* d = f_->getFloatData())
            f_->adjustTimes(d);
    }
    const int64_t raw = ms + (f_->timeFixupOff ? 0 : int64_t(f_->timeOffset));
    if (raw <= 0)
        return 0;
    const uint64_t key = 2 * uint64_t(raw);
    return size_t(std::partition_point(items.begin(), items.end(), [&](const ORBItem& item) { return item.key() < key; }) -
                  items.begin());
}

int32_t ColumnReader::trialOf(size_t index)
{
    const std::vector<ORBTrial>& trials = f_->trials;
    while (trialAt_ + 1 < trials.size() && trials[trialAt_ + 1].startIndex <= index)
        ++trialAt_;
    if (trialAt_ < trials.size() && trials[trialAt_].startIndex <= index && index < trials[trialAt_].endIndex)
        return int32_t(trialAt_);
    return -1;
}

// Whether the samples the pre-scan decoded in stream order are the ones the
// cursor hands out from its sample queue, in the same order and with the
// same values.  So they are when the queue would hold just the stream's
// samples in stream order and decode each with the same state (the scan
// has told already whether reading an item again at its position reads the
// same bytes):
//  - the index holds every sample of the stream once, in stream order,
//    under strictly increasing keys (no placeholders, none dropped, none
//    filed under another key), and a run of samples the cursor reads from
//    any of them gives them the scan's times (runKeepsScannedTimes);
//  - every sample carries pupil sizes, or none does (the queue's carried
//    sizes then never differ from their starting ones);
//  - every block start sets the same scales whatever came before it, and
//    one is read before the first sample (the decoder's state at a sample
//    is then the same whichever items it decoded last).
bool ColumnReader::samplesInStreamOrder() const
{
    const ScanFacts& facts = facts_;
    if (!facts.uniformBlocks || facts.blockStarts == 0 ||
        (facts.pupilGroups != 0 && facts.pupilGroups != facts.samples) ||
        c_->tables[ORB_TABLE_SAMPLES].rows() != facts.samples)
        return false;
    uint64_t samples = 0;
    int64_t lastPosition = -1;
    uint64_t lastKey = 0;
    bool blockStarted = false;
    for (const ORBItem& item : f_->index.items) {
        const unsigned code = item.code();
        blockStarted = blockStarted || code == SSAMPLES || code == SEVENTS;
        if (code != SAMPLE)
            continue;
        if (!blockStarted || !runKeepsScannedTimes(item) || item.position <= lastPosition ||
            (samples > 0 && item.key() <= lastKey))
            return false;
        lastPosition = item.position;
        lastKey = item.key();
        ++samples;
    }
    return samples == facts.samples;
}

void ColumnReader::completeScannedRow(size_t index, int32_t block)
{
    const size_t row = scannedRow_++;
    const ORBItem& item = f_->index.items[index];
    uint32_t& time = scannedColumns_.time[row];
    if (!f_->currentRecording)
        f_->inBlock(time);
    if (item.type & (kFlagEye0 | kFlagEye1)) {
        // A sample in a blink: the whole row takes the repair.
        Table& samples = c_->tables[ORB_TABLE_SAMPLES];
        FSAMPLE fs{};
        samples.readRow(row, kFromSample, &fs);
        finishSample(fs, item);
        f_->adjustTime(fs.time);
        samples.writeRow(row, kFromSample, &fs);
    } else {
        if (scannedColumns_.flags && secondInItsMillisecond(item, time))
            scannedColumns_.flags[row] = uint16_t(scannedColumns_.flags[row] | kHalfMillisecond);
        if (!f_->timeFixupOff)
            f_->adjustTime(time);
    }
    if (scannedColumns_.index)
        scannedColumns_.index[row] = int32_t(index);
    if (scannedColumns_.block)
        scannedColumns_.block[row] = block;
    if (scannedColumns_.trial)
        scannedColumns_.trial[row] = trialOf(index);
}

void ColumnReader::walk(bool scannedRows, size_t first, size_t last)
{
    _ORBFILE* const handle = reinterpret_cast<_ORBFILE*>(f_);
    Table& samples = c_->tables[ORB_TABLE_SAMPLES];
    Table& events = c_->tables[ORB_TABLE_EVENTS];
    Table& blocks = c_->tables[ORB_TABLE_BLOCKS];
    const bool camera = flags_ & ORB_COLUMNS_CAMERA;
    const size_t total = last;
    if (window_) {
        // The cursor's state as the whole walk has it at the first item.
        std::memset(f_->eventPairs, 0xFF, sizeof f_->eventPairs);
        f_->currentRecording = nullptr;
    }
    // The walk's share of the progress.
    const double from = scanBytes_ > 0 ? kScanShare : 0.0;

    PlaceRow place{};
    TextRow text{};
    CameraRow cam{};
    const void* sources[kSources] = {};
    sources[kFromPlace] = &place;
    sources[kFromText] = &text;
    sources[kFromCamera] = &cam;

    const bool velocities = flags_ & ORB_COLUMNS_VELOCITIES;
    int32_t block = -1;     // the block the rows lie in
    int32_t nextBlock = 0;  // the number of the next block start
    FSAMPLE& fs = sample_.fs; // the row's sample, repaired in place
    int slot = -1; // the queue slot of the last sample handed out
    for (size_t index = 0; index < total; ++index) {
        if (index % kProgressEvery == 0 && index != 0)
            report(from + (1.0 - from) * double(index) / double(total));
        // A scanned sample needs nothing of the cursor but its block; any
        // other entry is stepped onto as the cursor does.
        // Before a window only what sets later rows' values is stepped
        // over: the block starts and events, and the samples when the
        // velocities are wanted (which samples a velocity finds among its
        // neighbours depends on what the sample queue read before).
        const bool row = index >= first;
        if (!row && !velocities && f_->index.items[index].isSample())
            continue;
        if (scannedRows && f_->index.items[index].isSample()) {
            completeScannedRow(index, block);
            continue;
        }
        const int code = f_->stepFrom(int32_t(index));
        if (code == NO_MORE_ITEMS)
            break;
        place.index = int32_t(index);
        if (code == SAMPLE) {
            // As getFloatData and adjustTimes hand it out, straight from
            // the queue, velocities only when they are wanted.
            const ORBItem& item = f_->index.items[index];
            try {
                const Sample* s = f_->queuedSample(int(index), velocities && row, &slot);
                if (!s) {
                    orb_log("Read error \n");
                    continue;
                }
                if (!row)
                    continue;
                fs = s->fs;
            } catch (const ORBException& e) {
                orb_log("Error %s \n", e.what());
                continue;
            }
            finishSample(fs, item);
            f_->adjustTime(fs.time);
            place.block = block;
            place.trial = trialOf(index);
            if (camera)
                orb_get_camera_values(handle, &fs, &cam);
            sources[kFromSample] = &fs;
            samples.append(sources);
            continue;
        }
        ALLF_DATA* d = f_->getFloatData();
        if (!d)
            continue; // the cursor hands out nothing here: no row
        f_->adjustTimes(d);
        if (code == RECORDING) {
            const ORBItem& item = f_->index.items[index];
            if (d->rec.state == 1) {
                block = nextBlock++;
                blockOf_.emplace(item.rec, block);
            }
            place.block = block;
            place.trial = -1;
            if (d->rec.state != 1)
                block = -1;
            sources[kFromBlock] = &d->rec;
            if (row)
                blocks.append(sources);
            continue;
        }
        if (!row)
            continue;
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

void ColumnReader::addTrials(size_t first, size_t last)
{
    Table& t = c_->tables[ORB_TABLE_TRIALS];
    TrialRow row{};
    const void* sources[kSources] = {};
    sources[kFromTrial] = &row;
    for (const ORBTrial& trial : f_->trials) {
        if (window_ && (trial.startIndex < first || trial.startIndex >= last))
            continue;
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

// The options of a read as this version knows them: a caller's shorter or
// longer structure is taken as far as both know it.
ORB_READ_OPTIONS optionsOf(const ORB_READ_OPTIONS* given)
{
    ORB_READ_OPTIONS o;
    orb_read_options_init(&o);
    if (!given)
        return o;
    if (given->size < sizeof o)
        throw ORBException("The read options are %zu bytes, fewer than the %zu of the first version", given->size,
                           sizeof o);
    std::memcpy(&o, given, sizeof o);
    return o;
}

// Runs a read: failures are logged, counted in *errval and kept as the
// thread's last error.
template <class Read>
ORB_COLUMNS* guarded(Read read, int* errval)
{
    LastErrorScope scope;
    int err = -1;
    try {
        ORB_COLUMNS* result = read();
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

// Opens the recording with open(), builds its trial list and reads it into
// columns.
template <class Open>
ORB_COLUMNS* readColumns(Open open, const ORB_READ_OPTIONS* given, int* errval)
{
    return guarded(
        [&] {
            const ORB_READ_OPTIONS o = optionsOf(given);
            ColumnReader reader(o);
            std::unique_ptr<ORBFile> f = open(reader.scanned(), o);
            const std::string startId = o.trial_start ? o.trial_start : "TRIALID";
            const std::string endId = o.trial_end ? o.trial_end : "";
            f->trialStartId = startId.c_str();
            f->trialEndId = o.trial_end ? endId.c_str() : nullptr;
            f->collectTrials();
            return reader.run(*f).release();
        },
        errval);
}

// The cursor of an open recording as a read from it finds it, put back when
// the read is done.
class KeptCursor {
public:
    explicit KeptCursor(ORBFile& f)
        : f_(f), current_(f.current), requested_(f.itemRequested), data_(f.currentData),
          recording_(f.currentRecording)
    {
        std::memcpy(pairs_, f.eventPairs, sizeof pairs_);
    }
    ~KeptCursor()
    {
        f_.current = current_;
        f_.itemRequested = requested_;
        f_.currentData = data_;
        f_.currentRecording = recording_;
        std::memcpy(f_.eventPairs, pairs_, sizeof pairs_);
    }
    KeptCursor(const KeptCursor&) = delete;
    KeptCursor& operator=(const KeptCursor&) = delete;

private:
    ORBFile& f_;
    const int32_t current_;
    const bool requested_;
    const ALLF_DATA data_;
    Recording* const recording_;
    uint32_t pairs_[2][6];
};

std::unique_ptr<ORBFile> openPath(const char* fname, ScannedSamples* scanned, const ORB_READ_OPTIONS& o)
{
    if (!fname)
        throw ORBException("File Could not be opened!");
    return std::make_unique<ORBFile>(fname, o.consistency, o.loadevents != 0, o.loadsamples != 0,
                                     ORBFile::IndexSorting::WhileScanning, scanned);
}

std::unique_ptr<ORBFile> openMemory(const void* data, size_t size, ScannedSamples* scanned, const ORB_READ_OPTIONS& o)
{
    return std::make_unique<ORBFile>(data, size, o.consistency, o.loadevents != 0, o.loadsamples != 0,
                                     ORBFile::IndexSorting::WhileScanning, scanned);
}

// The options of the read functions that take them one by one.
ORB_READ_OPTIONS optionsOf(int consistency, int loadevents, int loadsamples, int flags, const char* trialStart,
                           const char* trialEnd, orb_progress_function progress, void* user)
{
    ORB_READ_OPTIONS o;
    orb_read_options_init(&o);
    o.consistency = consistency;
    o.loadevents = loadevents;
    o.loadsamples = loadsamples;
    o.flags = flags;
    o.trial_start = trialStart;
    o.trial_end = trialEnd;
    o.progress = progress;
    o.user = user;
    return o;
}

} // namespace

extern "C" {

void orb_read_options_init(ORB_READ_OPTIONS* o)
{
    if (!o)
        return;
    *o = ORB_READ_OPTIONS{};
    o->size = sizeof *o;
    o->loadevents = 1;
    o->loadsamples = 1;
}

ORB_COLUMNS* orb_read(const char* fname, const ORB_READ_OPTIONS* options, int* errval)
{
    return readColumns([&](ScannedSamples* scanned, const ORB_READ_OPTIONS& o) { return openPath(fname, scanned, o); },
                       options, errval);
}

ORB_COLUMNS* orb_read_memory(const void* data, size_t size, const ORB_READ_OPTIONS* options, int* errval)
{
    return readColumns(
        [&](ScannedSamples* scanned, const ORB_READ_OPTIONS& o) { return openMemory(data, size, scanned, o); },
        options, errval);
}

ORB_COLUMNS* orb_read_open(_ORBFILE* ef, const ORB_READ_OPTIONS* options, int* errval)
{
    return guarded(
        [&] {
            if (!ef)
                throw ORBException("No open recording to read from");
            const ORB_READ_OPTIONS o = optionsOf(options);
            ColumnReader reader(o);
            ORBFile& f = *reinterpret_cast<ORBFile*>(ef);
            KeptCursor kept(f);
            if (!f.trialsCollected)
                f.collectTrials();
            return reader.run(f).release();
        },
        errval);
}

ORB_COLUMNS* orb_read_columns(const char* fname, int consistency, int loadevents, int loadsamples,
                              int flags, const char* trial_start, const char* trial_end,
                              orb_progress_function progress, void* user, int* errval)
{
    const ORB_READ_OPTIONS o =
        optionsOf(consistency, loadevents, loadsamples, flags, trial_start, trial_end, progress, user);
    return orb_read(fname, &o, errval);
}

ORB_COLUMNS* orb_read_columns_memory(const void* data, size_t size, int consistency, int loadevents,
                                     int loadsamples, int flags, const char* trial_start,
                                     const char* trial_end, orb_progress_function progress,
                                     void* user, int* errval)
{
    const ORB_READ_OPTIONS o =
        optionsOf(consistency, loadevents, loadsamples, flags, trial_start, trial_end, progress, user);
    return orb_read_memory(data, size, &o, errval);
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
    return t ? int(t->shown()) : 0;
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
    for (size_t i = 0; i < t->shown(); ++i)
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
