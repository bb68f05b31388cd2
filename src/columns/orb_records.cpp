// The records as data: the member lists of the public header turned into
// the tables of orb_record_members, the column layouts of orb_columns_layout,
// and the camera values of a sample in one call.
#include <cstddef>
#include <string>
#include <vector>

#include "Columns.h"
#include "orbapi.h"

namespace {

// One member of a list, before its elements are spelled out.
struct Listed {
    const char* stem;
    uint32_t offset;
    int type;
    int length;
    int flag;
};

// A list's members, each checked against the struct: the member holds
// `length` values of the type named.
#define ORB_LISTED(member, name, type, length, flag)                                                         \
    Listed{name, uint32_t(offsetof(Record, member)), ORB_COLUMN_##type, length, flag},
#define ORB_CHECKED(member, name, type, length, flag)                                                        \
    static_assert(sizeof(Record::member) == (length) * columns::typeSize(ORB_COLUMN_##type), "the list's " name);

template <class Record>
struct Members;

#define ORB_DESCRIBED(Type, list_of)                                                                         \
    template <>                                                                                              \
    struct Members<Type> {                                                                                   \
        using Record = Type;                                                                                 \
        list_of(ORB_CHECKED) static std::vector<Listed> list() { return {list_of(ORB_LISTED)}; }            \
    };

ORB_DESCRIBED(FSAMPLE, ORB_SAMPLE_MEMBERS)
ORB_DESCRIBED(FEVENT, ORB_EVENT_MEMBERS)
ORB_DESCRIBED(Recording, ORB_RECORDING_MEMBERS)
ORB_DESCRIBED(ORB_CAMERA, ORB_CAMERA_MEMBERS)

#undef ORB_DESCRIBED
#undef ORB_LISTED
#undef ORB_CHECKED

// The values of one record: every element of an array member is a value of
// its own, named after its eye (a pair) or its number.
class Table {
public:
    explicit Table(const std::vector<Listed>& list)
    {
        static const char* const eyes[2] = ORB_EYE_NAMES;
        for (const Listed& m : list)
            for (int k = 0; k < m.length; ++k) {
                std::string name = m.stem;
                if (m.length == 2)
                    name.append("_").append(eyes[k]);
                else if (m.length > 2)
                    name.append("_").append(std::to_string(k));
                names_.push_back(name);
                const uint32_t offset = m.offset + uint32_t(k * columns::typeSize(m.type));
                values_.push_back(ORB_MEMBER{nullptr, m.stem, offset, m.type, k, m.length, m.flag});
            }
        // The names are in place now: point at them.
        for (size_t i = 0; i < values_.size(); ++i)
            values_[i].name = names_[i].c_str();
    }
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;

    const ORB_MEMBER* data() const { return values_.data(); }
    int size() const { return int(values_.size()); }

private:
    std::vector<std::string> names_;
    std::vector<ORB_MEMBER> values_;
};

template <class Record>
const Table& tableOf()
{
    static const Table table(Members<Record>::list());
    return table;
}

const Table* recordTable(int record)
{
    switch (record) {
    case ORB_RECORD_SAMPLE: return &tableOf<FSAMPLE>();
    case ORB_RECORD_EVENT: return &tableOf<FEVENT>();
    case ORB_RECORD_RECORDING: return &tableOf<Recording>();
    case ORB_RECORD_CAMERA: return &tableOf<ORB_CAMERA>();
    default: return nullptr;
    }
}

// The layouts of the four tables for each combination of the two flags,
// laid out once.
struct Layouts {
    static constexpr int kFlagSets = 4;
    columns::Table tables[kFlagSets][4];

    Layouts()
    {
        for (int flags = 0; flags < kFlagSets; ++flags) {
            columns::layoutSamples(tables[flags][ORB_TABLE_SAMPLES], flags);
            columns::layoutEvents(tables[flags][ORB_TABLE_EVENTS]);
            columns::layoutBlocks(tables[flags][ORB_TABLE_BLOCKS]);
            columns::layoutTrials(tables[flags][ORB_TABLE_TRIALS]);
        }
    }
};

} // namespace

extern "C" {

const ORB_MEMBER* orb_record_members(int record, int* count)
{
    const Table* t = recordTable(record);
    *count = t ? t->size() : 0;
    return t ? t->data() : nullptr;
}

int orb_columns_layout(int table, int flags, int i, ORB_COLUMN* out)
{
    if (table < ORB_TABLE_SAMPLES || table > ORB_TABLE_TRIALS || !out || i < 0)
        return -1;
    static const Layouts layouts;
    const columns::Table& t = layouts.tables[flags & (ORB_COLUMNS_VELOCITIES | ORB_COLUMNS_CAMERA)][table];
    if (!t.describe(size_t(i), out))
        return -1;
    out->data = nullptr;
    return 0;
}

void orb_get_camera_values(_ORBFILE* ef, const FSAMPLE* s, ORB_CAMERA* out)
{
    // The accessors are given a copy: the first of them rebuilds the trial
    // list through the record buffer, which `s` may be.
    FSAMPLE copy = *s;
    ORB_CAMERA c{};
    for (int e = 0; e < 2; ++e) {
        c.pupilArea[e] = orb_get_uncorrected_pupil_area(ef, &copy, e);
        c.crArea[e] = orb_get_uncorrected_cr_area(ef, &copy, e);
        c.cr2Area[e] = orb_get_uncorrected_cr2_area(ef, &copy, e);
        int dim[2];
        orb_get_pupil_dimension(ef, &copy, e, dim);
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
            {[](_ORBFILE* h, FSAMPLE* p, int eye, float* xy) { orb_get_pupil_cr(h, p, eye, xy); }, c.pupilCrX,
             c.pupilCrY},
        };
        for (const auto& centre : centres) {
            float xy[2];
            centre.get(ef, &copy, e, xy);
            centre.x[e] = xy[0];
            centre.y[e] = xy[1];
        }
    }
    int wh[2];
    orb_get_cr_dimension(ef, &copy, wh);
    c.crWidth = wh[0];
    c.crHeight = wh[1];
    orb_get_window_position(ef, &copy, wh);
    c.windowX = wh[0];
    c.windowY = wh[1];
    *out = c;
}

} // extern "C"
