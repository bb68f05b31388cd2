// Helpers for the tests that work on the library's own classes: opening a
// recording as an ORBFile or a decoder and looking into its item index.
#ifndef ORBAPI_TESTS_INTERNALS_H
#define ORBAPI_TESTS_INTERNALS_H

#include <memory>
#include <string>
#include <vector>

#include "ORBException.h"
#include "ORBFile.h"
#include "Recordings.h"

namespace orbtest {

using Lines = std::vector<std::string>;

inline std::unique_ptr<ORBFile> openOrb(const OrbWriter& w, int options = 0, bool events = true,
                                        bool samples = true)
{
    return std::make_unique<ORBFile>(w.write().c_str(), options, events, samples);
}

// The text of the ORBException that f throws, or "(no exception)".
template <class F>
std::string thrown(F f)
{
    try {
        f();
    } catch (const ORBException& e) {
        return e.what();
    }
    return "(no exception)";
}

// A decoder that has read w's magic line and preamble and whose stream
// stands on w's first item, its decoding state the fresh one.
inline std::unique_ptr<ItemDecoder> openAtItems(const OrbWriter& w)
{
    OrbWriter head;
    head.magic = w.magic;
    head.preamble = w.preamble;
    auto d = std::make_unique<ItemDecoder>();
    d->open(std::make_unique<FileInputStream>(head.write().c_str()));
    char line[278] = {};
    d->stream->getTerminatedString(line, 35);
    for (int i = 0; i < 100 && d->get_combfile_preamble_text(line, 200) == 0; ++i) {
    }
    d->continueWith(std::make_unique<FileInputStream>(w.write().c_str()));
    d->stream->seek(long(w.headerSize()));
    return d;
}

// Cuts `item` short at every byte inside it.  `fields` names its readers in
// order (w word, i 32-bit, b byte, m message byte); read(f, catchErrors)
// decodes the item.  Every cut must end in the reader's log line and the
// end-of-file exception, which the catching form turns into -1.
template <class Read>
void expectEveryCutToFail(const Bytes& item, const std::string& fields, Read read)
{
    size_t start = 0;
    for (char kind : fields) {
        const int size = kind == 'w' ? 2 : kind == 'i' ? 4 : 1;
        for (int have = 0; have < size; ++have) {
            OrbWriter w;
            w.terminate = false;
            w.raw(Bytes(item.begin(), item.begin() + long(start) + have));
            auto f = openAtItems(w);
            LogCapture log;
            EXPECT_EQ(read(*f, 1), -1);
            const std::string line = kind == 'w'   ? "error reading orb file 7a r = " + std::to_string(have) + " \n"
                                     : kind == 'i' ? "error reading orb file 9\n"
                                     : kind == 'm' ? "error reading orb file 12\n"
                                                   : "error reading orb file 11\n";
            EXPECT_EQ(log.lines(), (Lines{line, "Error End of file Exception \n"})) << "cut at " << start + have;
            if (start + size_t(have) + 1 == item.size()) {
                f = openAtItems(w);
                EXPECT_EQ(thrown([&] { read(*f, 0); }), "End of file Exception") << "when not caught";
            }
        }
        start += size_t(size);
    }
    EXPECT_EQ(start, item.size());
}

// Index of the nth entry with this code (and eye index unless -1), or -1.
inline int indexOf(const ORBFile& f, unsigned code, int nth = 0, int eye = -1)
{
    for (size_t i = 0; i < f.index.items.size(); ++i) {
        const ORBItem& item = f.index.items[i];
        if (item.code() == code && (eye < 0 || (item.type & kEyeMarkerMask) == eyeMarker(eye)) &&
            nth-- == 0)
            return int(i);
    }
    return -1;
}
// The same entry itself (a test failure when there is none).
inline const ORBItem& itemOf(const ORBFile& f, unsigned code, int nth = 0, int eye = -1)
{
    return f.index.items.at(size_t(indexOf(f, code, nth, eye)));
}
inline std::vector<uint64_t> keysOf(const ORBFile& f, unsigned code)
{
    std::vector<uint64_t> keys;
    for (const ORBItem& i : f.index.items)
        if (i.code() == code) keys.push_back(i.key());
    return keys;
}
inline size_t countCode(const ORBFile& f, unsigned code) { return keysOf(f, code).size(); }

// The captured log lines that contain `part`.
inline std::vector<std::string> linesWith(const LogCapture& log, const std::string& part)
{
    std::vector<std::string> out;
    for (const std::string& l : log.lines())
        if (l.find(part) != std::string::npos) out.push_back(l);
    return out;
}

} // namespace orbtest

#endif
