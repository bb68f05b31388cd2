// A recording read into columns (ORB_COLUMNS of the function interface):
// the tables, their column layouts, and the storage the rows are written
// into.
//
// A table is laid out once from its list of columns.  Each column copies
// one member of a source record (a FSAMPLE, a FEVENT, a Recording, or one of
// the small row records below) at a fixed offset; appending a row copies
// every column's member from the records given for that row.  The storage
// of a column is allocated once, for the most rows the table can get (the
// number of index entries of its kind), and written row by row: pages past
// the last row are never touched.
#ifndef ORBAPI_COLUMNS_H
#define ORBAPI_COLUMNS_H

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "orbapi.h"

namespace columns {

// The records a column can copy from.
enum Source : uint8_t {
    kFromSample,  // FSAMPLE
    kFromEvent,   // FEVENT
    kFromBlock,   // Recording
    kFromCamera,  // CameraRow
    kFromPlace,   // PlaceRow
    kFromText,    // TextRow
    kFromTrial,   // TrialRow
    kSources
};

// Where a row lies: its index position, block and trial.
struct PlaceRow {
    int32_t index;
    int32_t block;
    int32_t trial;
};

// Where an event row's text lies in the shared text buffer.
struct TextRow {
    uint64_t offset;
    uint32_t length;
};

// The values of the raw pupil and CR accessors for one sample.
using CameraRow = ORB_CAMERA;

// One trial row.
struct TrialRow {
    int32_t block;
    uint32_t duration;
    uint32_t startTime;
    uint32_t endTime;
    uint32_t startIndex;
    uint32_t endIndex;
};

// Bytes of one element of a column type; 0 for an unknown type.
constexpr size_t typeSize(int type)
{
    switch (type) {
    case ORB_COLUMN_UINT8: return 1;
    case ORB_COLUMN_INT16:
    case ORB_COLUMN_UINT16: return 2;
    case ORB_COLUMN_INT32:
    case ORB_COLUMN_UINT32:
    case ORB_COLUMN_FLOAT32: return 4;
    case ORB_COLUMN_FLOAT64:
    case ORB_COLUMN_INT64:
    case ORB_COLUMN_UINT64: return 8;
    default: return 0;
    }
}
// Bytes of a record of a source.
size_t sourceSize(Source source);

struct Column {
    std::string name;
    int type = 0;
    Source source = kFromSample;
    uint16_t offset = 0; // of the member in its source record
    uint8_t size = 0;
    unsigned char* data = nullptr; // in the table's storage
};

// The storage of a table's columns: one block.  A large one is mapped from
// the system; its pages become present as they are first written, or ahead
// of the writer (Table::prefault), so that a table may be allocated for far
// more rows than it gets at the cost of address space only.
class Storage {
public:
    Storage() = default;
    // Throws std::bad_alloc.
    explicit Storage(size_t bytes);
    ~Storage();
    Storage(Storage&& other) noexcept : data_(other.data_), bytes_(other.bytes_), mapped_(other.mapped_)
    {
        other.data_ = nullptr;
    }
    Storage& operator=(Storage&& other) noexcept;
    Storage(const Storage&) = delete;
    Storage& operator=(const Storage&) = delete;

    unsigned char* data() const { return data_; }
    bool mapped() const { return mapped_; }

private:
    unsigned char* data_ = nullptr;
    size_t bytes_ = 0;
    bool mapped_ = false;
};

class Table {
public:
    // Adds the column `name` copying the member at `offset` of `source`.
    void add(const char* name, int type, Source source, size_t offset);

    // Keeps the columns `names` (a null-terminated list), in that order,
    // and after them those of `hidden` not among them: made and written,
    // but not shown (columns() and describe() end before them).  Throws
    // ORBException naming the known columns when a name is not one, or is
    // given twice.  Before allocate().
    void select(const char* const* names, const std::vector<std::string>& hidden, const char* table);
    // Whether the column `name` is made (shown or hidden).
    bool has(const char* name) const { return find(name) != nullptr; }

    // Allocates every column for `capacity` rows.  Throws std::bad_alloc.
    void allocate(size_t capacity);
    // Appends one row; sources[s] is the record of source s (unused ones
    // may be null).  At most the allocated capacity.  Rows are gathered a
    // few at a time and then written column by column, so that each column
    // gets a run of values at once: they count in rows() and the columns
    // only after flush().
    void append(const void* const* sources)
    {
        for (const Stage& st : stages_)
            copyRecord(st.source, st.rows.get() + pending_ * st.size, sources[st.source]);
        if (++pending_ == kStageRows)
            flush();
    }
    // The record of `source` in the row being gathered, for the caller to
    // fill in place and then append with appendFilled.
    void* pendingRecord(Source source)
    {
        for (const Stage& st : stages_)
            if (st.source == source)
                return st.rows.get() + pending_ * st.size;
        return nullptr;
    }
    // append() for a row whose record of `filled` is filled in place.
    void appendFilled(Source filled, const void* const* sources)
    {
        for (const Stage& st : stages_)
            if (st.source != filled)
                copyRecord(st.source, st.rows.get() + pending_ * st.size, sources[st.source]);
        if (++pending_ == kStageRows)
            flush();
    }
    // Writes the gathered rows into the columns.
    void flush();
    // Drops the written rows from `rows` on (all rows are written).
    void truncate(size_t rows)
    {
        if (pending_ == 0 && rows < rows_)
            rows_ = rows;
    }
    // Whether as many rows are appended as the table can take.
    bool full() const { return rows_ + pending_ >= capacity_; }
    // The rows written into the columns so far, as another thread sees
    // them (a lower bound while rows are appended).
    size_t flushedRows() const { return flushed_.load(std::memory_order_relaxed); }

    // The values of the written row `row` of the columns from `source`,
    // into (or from) a record of that source; other members are left.
    void readRow(size_t row, Source source, void* record) const;
    void writeRow(size_t row, Source source, const void* record);
    // The storage of the column `name`, or null.
    unsigned char* columnData(const char* name) const;

    // Makes the pages of rows [from, to) of every column present, so that
    // writing them later costs no page faults; safe to call from another
    // thread while rows are appended.  False when the system cannot do it
    // (or the storage is not mapped).
    bool prefault(size_t from, size_t to) const;

    size_t rows() const { return rows_; }
    size_t capacity() const { return capacity_; }
    // Every column made, the hidden ones after the shown ones.
    const std::vector<Column>& columns() const { return columns_; }
    // The shown columns.
    size_t shown() const { return std::min(shown_, columns_.size()); }
    const Column* find(const char* name) const;
    // Column i as the interface describes it; false when there is none.
    bool describe(size_t i, ORB_COLUMN* out) const;

private:
    // One column's copy: its storage, and where its member lies.
    struct Copy {
        unsigned char* to;
        size_t offset;
    };
    // The copies of the columns of one source and element size.
    struct Group {
        Source source;
        size_t size;
        std::vector<Copy> copies;
    };
    // The rows gathered of one source: kStageRows records of `size` bytes.
    struct Stage {
        Source source;
        size_t size;
        std::unique_ptr<unsigned char[]> rows;
    };
    static constexpr size_t kStageRows = 64;

    [[noreturn]] void refuseUnknown(const char* name, const char* table) const;
    template <size_t N>
    void write(const Group& g, const Stage& st);
    // Copies a record of `source`, its size known to the compiler.
    static void copyRecord(Source source, unsigned char* to, const void* from)
    {
        switch (source) {
        case kFromSample: std::memcpy(to, from, sizeof(FSAMPLE)); break;
        case kFromEvent: std::memcpy(to, from, sizeof(FEVENT)); break;
        case kFromBlock: std::memcpy(to, from, sizeof(Recording)); break;
        case kFromCamera: std::memcpy(to, from, sizeof(CameraRow)); break;
        case kFromPlace: std::memcpy(to, from, sizeof(PlaceRow)); break;
        case kFromText: std::memcpy(to, from, sizeof(TextRow)); break;
        case kFromTrial: std::memcpy(to, from, sizeof(TrialRow)); break;
        default: break;
        }
    }

    std::vector<Column> columns_;
    size_t shown_ = SIZE_MAX; // the columns from here on are hidden
    Storage storage_;
    std::vector<Group> groups_;
    std::vector<Stage> stages_;
    size_t pending_ = 0; // rows gathered, not yet written
    size_t rows_ = 0;
    std::atomic<size_t> flushed_{0}; // rows_, for another thread
    size_t capacity_ = 0;
};

// The layouts of the four tables for the flags of orb_read_columns.
void layoutSamples(Table& t, int flags);
void layoutEvents(Table& t);
void layoutBlocks(Table& t);
void layoutTrials(Table& t);

} // namespace columns

// The handle of the function interface.
struct ORB_COLUMNS {
    columns::Table tables[4]; // by ORB_TABLE_*
    std::string text;         // message bytes of the events table
    std::string preamble;
    int revision = 0;
    int oculantRevision = 0;
    size_t items = 0;
};

#endif
