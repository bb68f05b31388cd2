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

#include <cstddef>
#include <cstdint>
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
struct CameraRow {
    int32_t pupilArea[2], crArea[2], cr2Area[2];
    int32_t pupilWidth[2], pupilHeight[2];
    int32_t crWidth, crHeight;
    int32_t windowX, windowY;
    float rawPupilX[2], rawPupilY[2];
    float rawCrX[2], rawCrY[2];
    float rawCr2X[2], rawCr2Y[2];
    float pupilCrX[2], pupilCrY[2];
};

// One trial row.
struct TrialRow {
    int32_t block;
    uint32_t duration;
    uint32_t startTime;
    uint32_t endTime;
    uint32_t startIndex;
    uint32_t endIndex;
};

// Bytes of one element of a column type.
size_t typeSize(int type);

struct Column {
    std::string name;
    int type = 0;
    Source source = kFromSample;
    uint16_t offset = 0; // of the member in its source record
    uint8_t size = 0;
    std::unique_ptr<unsigned char[]> data;
};

class Table {
public:
    // Adds a column copying the member at `offset` of `source`.
    void add(std::string name, int type, Source source, size_t offset);
    // Adds the [0] and [1] of an eye pair as name_left and name_right.
    void addPair(const std::string& name, int type, Source source, size_t offset);

    // Allocates every column for `capacity` rows.  Throws std::bad_alloc.
    void allocate(size_t capacity);
    // Appends one row; sources[s] is the record of source s (unused ones
    // may be null).  At most the allocated capacity.
    void append(const void* const* sources)
    {
        for (Column& c : columns_) {
            const unsigned char* from = static_cast<const unsigned char*>(sources[c.source]) + c.offset;
            unsigned char* to = c.data.get() + rows_ * c.size;
            switch (c.size) {
            case 1: *to = *from; break;
            case 2: copy<2>(to, from); break;
            case 4: copy<4>(to, from); break;
            default: copy<8>(to, from); break;
            }
        }
        ++rows_;
    }

    size_t rows() const { return rows_; }
    size_t capacity() const { return capacity_; }
    const std::vector<Column>& columns() const { return columns_; }
    // Column i as the interface describes it; false when there is none.
    bool describe(size_t i, ORB_COLUMN* out) const;

private:
    template <size_t N>
    static void copy(unsigned char* to, const unsigned char* from)
    {
        __builtin_memcpy(to, from, N);
    }

    std::vector<Column> columns_;
    size_t rows_ = 0;
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
