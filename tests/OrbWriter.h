// A small writer of ORB recordings for the tests: it lays files out byte by
// byte (magic line, preamble, sample and event items, compressed container)
// so that every test reads a file it made itself.
#ifndef ORBAPI_TESTS_ORBWRITER_H
#define ORBAPI_TESTS_ORBWRITER_H

#include <zlib.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

#include "ItemFormat.h"
#include "orbapi.h"

namespace orbtest {

using Bytes = std::vector<unsigned char>;

// Big-endian byte helpers.
inline void put8(Bytes& b, unsigned v) { b.push_back(static_cast<unsigned char>(v)); }
inline void put16(Bytes& b, unsigned v) { put8(b, (v >> 8) & 0xFF); put8(b, v & 0xFF); }
inline void put32(Bytes& b, uint32_t v) { put16(b, v >> 16); put16(b, v & 0xFFFF); }

// One sample item, laid out from its flag word: only the groups whose bits
// are set are written, in the order the reader takes them.
struct SampleItem {
    uint16_t flags = kSampleItem | kFullTime | kLeftEye;
    uint32_t time = 0;       // written when kFullTime is set
    uint8_t step = 0;        // written when kFullTime is clear
    int16_t raw[2][2] = {};  // [eye][x, y]
    int16_t second[2][2] = {};
    int16_t gaze[2][2] = {};
    int16_t res[2] = {};
    int16_t pupil[2] = {};
    uint16_t status = 0, input = 0, buttons = 0;
    uint8_t extraType = 0;
    std::vector<uint16_t> extra; // exactly these words follow the type byte
    Bytes skip1 = {0};           // raw bytes of the first skipped list
    Bytes skip2 = {0};           // raw bytes of the second skipped list

    void writeTo(Bytes& b) const
    {
        put16(b, flags | kSampleItem);
        if (flags & kFullTime)
            put32(b, time);
        else
            put8(b, step);
        auto perEye = [&](const int16_t (&v)[2][2]) {
            for (int e = 0; e < 2; ++e)
                if (flags & sampleEyeBit(e)) {
                    put16(b, uint16_t(v[e][0]));
                    put16(b, uint16_t(v[e][1]));
                }
        };
        if (flags & kRawGroup) perEye(raw);
        if (flags & kSecondGroup) perEye(second);
        if (flags & kGazeGroup) perEye(gaze);
        if (flags & kResolutionGroup) {
            put16(b, uint16_t(res[0]));
            put16(b, uint16_t(res[1]));
        }
        if (flags & kPupilGroup)
            for (int e = 0; e < 2; ++e)
                if (flags & sampleEyeBit(e)) put16(b, uint16_t(pupil[e]));
        if (flags & kStatusWord) put16(b, status);
        if (flags & kInputWord) put16(b, input);
        if (flags & kButtonsWord) put16(b, buttons);
        if (flags & kExtraData) {
            put8(b, extraType);
            for (uint16_t w : extra) put16(b, w);
        }
        if (flags & kSkipList1) b.insert(b.end(), skip1.begin(), skip1.end());
        if (flags & kSkipList2) b.insert(b.end(), skip2.begin(), skip2.end());
    }
};

// One event item: the tag, then coded fields, then the code 0.
class EventItem {
public:
    // eye: 0 left, 1 right, -1 neither.
    EventItem(unsigned type, int eye = 0, unsigned tagLow = 0)
    {
        unsigned eyeBits = eye == 0 ? kLeftEye : eye == 1 ? kRightEye : 0u;
        put16(bytes_, eyeBits | ((type & kEventTypeMask) << kEventTypeShift) | (tagLow & kEventTagLowBits));
    }
    EventItem& u32(unsigned code, uint32_t v) { put8(bytes_, code); put32(bytes_, v); return *this; }
    EventItem& word(unsigned code, int v) { put8(bytes_, code); put16(bytes_, uint16_t(v)); return *this; }
    EventItem& words(unsigned code, int a, int b)
    {
        put8(bytes_, code); put16(bytes_, uint16_t(a)); put16(bytes_, uint16_t(b)); return *this;
    }
    EventItem& code(unsigned c) { put8(bytes_, c); return *this; }
    EventItem& message(const std::string& text) { return messageRaw(int(text.size()), text); }
    // A message field whose stored length need not match the text.
    EventItem& messageRaw(int length, const std::string& text)
    {
        put8(bytes_, kFieldMessage); put16(bytes_, uint16_t(length));
        bytes_.insert(bytes_.end(), text.begin(), text.end());
        return *this;
    }
    EventItem& start(uint32_t t) { return u32(kFieldStartTime, t); }
    EventItem& end(uint32_t t) { return u32(kFieldEndTime, t); }
    // The finished item (with its closing code 0).
    Bytes bytes() const { Bytes b = bytes_; put8(b, kFieldEnd); return b; }
    // The fields without the closing code, for truncation tests.
    const Bytes& unterminated() const { return bytes_; }

private:
    Bytes bytes_;
};

// The start of a sample (SSAMPLES) or event (SEVENTS) block as a tracker
// writes it: time, gaze divisor, second scale, rate in 16.16, and the packed
// mode word.
inline EventItem blockStart(unsigned type, uint32_t time, double rate, uint16_t flags,
                            int divisor = 1, int second = 10, int modeWord = 0x0312,
                            uint16_t flags2 = 0)
{
    EventItem e(type, -1);
    e.start(time).word(kFieldStartScalar, divisor).word(kFieldEndScalar, second);
    e.word(kFieldBlockFlags, flags);
    if (type != SSAMPLES) e.word(kFieldBlockFlags2, flags2);
    e.end(uint32_t(rate * 65536.0 + 0.5)).words(kFieldEndRes, modeWord, 0);
    return e;
}
inline EventItem blockEnd(unsigned type, uint32_t time)
{
    EventItem e(type, -1);
    e.end(time);
    return e;
}

// A whole recording.
class OrbWriter {
public:
    std::string magic = "NORVANE_LAB_COMBFILE\n";
    std::vector<std::string> preamble = {"DATE: Sat Nov 21 12:00:00 2026\n",
                                         "VERSION: OCULANT MK 3\n",
                                         "SOURCE: OCULANT MK\n"};
    bool compressed = false;    // write the body as one zlib stream
    bool endPreamble = true;    // write the "ENDP:\n" line
    bool terminate = true;      // close the item stream with a zero tag
    size_t truncateBodyTo = SIZE_MAX; // cut the (compressed) body short

    OrbWriter& add(const SampleItem& s) { s.writeTo(body_); return *this; }
    OrbWriter& add(const EventItem& e) { Bytes b = e.bytes(); return raw(b); }
    OrbWriter& raw(const Bytes& b) { body_.insert(body_.end(), b.begin(), b.end()); return *this; }
    const Bytes& body() const { return body_; }
    // Bytes of the magic line, the preamble and its end line: the offset of
    // the first item in a plain file.
    size_t headerSize() const
    {
        size_t n = magic.size() + (endPreamble ? 6 : 0);
        for (const std::string& line : preamble) n += line.size();
        return n;
    }

    Bytes build() const
    {
        Bytes out(magic.begin(), magic.end());
        for (const std::string& line : preamble) out.insert(out.end(), line.begin(), line.end());
        if (endPreamble) {
            const char* endp = "ENDP:\n";
            out.insert(out.end(), endp, endp + 6);
        }
        Bytes items = body_;
        if (terminate) put16(items, 0);
        if (compressed) {
            uLongf size = compressBound(uLong(items.size()));
            Bytes z(size);
            if (compress2(z.data(), &size, items.data(), uLong(items.size()), 6) != Z_OK)
                throw std::runtime_error("compress2 failed");
            z.resize(size);
            items.swap(z);
        }
        if (items.size() > truncateBodyTo) items.resize(truncateBodyTo);
        out.insert(out.end(), items.begin(), items.end());
        return out;
    }

    // Writes the recording to a fresh temporary file and returns its path.
    std::string write() const { return writeFile(build()); }

    static std::string writeFile(const Bytes& bytes)
    {
        static std::atomic<int> counter{0};
        const char* dir = std::getenv("ORBAPI_TEST_TMP");
        std::string path = std::string(dir ? dir : "/tmp") + "/orbtest-" +
                           std::to_string(getpid()) + "-" + std::to_string(counter++) + ".orb";
        store(path, bytes);
        // Every recording the tests make is also kept, once, where the
        // test that opens them all from disk and from memory finds them.
        if (const char* all = std::getenv("ORBAPI_TEST_RECORDINGS")) {
            uint64_t h = 1469598103934665603ull; // FNV-1a
            for (unsigned char c : bytes) h = (h ^ c) * 1099511628211ull;
            char name[32];
            std::snprintf(name, sizeof name, "/%016llx.orb", static_cast<unsigned long long>(h));
            const std::string copy = path + ".copy";
            store(copy, bytes);
            if (std::rename(copy.c_str(), (std::string(all) + name).c_str()) != 0)
                std::remove(copy.c_str());
        }
        return path;
    }

private:
    static void store(const std::string& path, const Bytes& bytes)
    {
        FILE* f = std::fopen(path.c_str(), "wb");
        if (!f) throw std::runtime_error("cannot write " + path);
        if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), f);
        std::fclose(f);
    }

    Bytes body_;
};

// Collects the library's log lines while it lives (single-threaded tests).
inline std::vector<std::string>& capturedLog()
{
    static std::vector<std::string> lines;
    return lines;
}
inline void captureLog(char* line) { capturedLog().push_back(line); }

class LogCapture {
public:
    LogCapture() { capturedLog().clear(); orb_set_log_function(captureLog); }
    ~LogCapture() { orb_set_log_function(nullptr); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    const std::vector<std::string>& lines() const { return capturedLog(); }
    bool contains(const std::string& line) const
    {
        for (const std::string& l : capturedLog())
            if (l == line) return true;
        return false;
    }
    void clear() { capturedLog().clear(); }
};

} // namespace orbtest

#endif
