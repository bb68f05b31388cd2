// A generator of realistic recordings for the benchmarks: trials of
// fixations and saccades, blinks inside some saccades, messages, and the
// block markers of a tracker, written the way a tracker writes them (both
// block starts, samples as time steps, every event a few milliseconds after
// the samples it describes, both block ends).  The file is streamed to disk
// (plain, or as a compressed container) so that making a large recording
// needs little memory.
#ifndef ORBAPI_BENCH_SYNTHETICRECORDING_H
#define ORBAPI_BENCH_SYNTHETICRECORDING_H

#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "OrbWriter.h"

namespace orbbench {

struct SyntheticOptions {
    double rate = 1000.0;       // samples per second: 250, 500, 1000 or 2000
    double seconds = 3600.0;    // recorded time, all blocks together
    int eyes = 3;               // 1 left, 2 right, 3 both
    double trialSeconds = 20.0; // one recording block per trial
    uint32_t startTime = 1200000; // tracker clock at the first trial (ms)
    bool compressed = false;
    unsigned seed = 1;
};

// What was written.  `entries` is the size of the item index an open
// without repair builds from it.
struct SyntheticRecording {
    std::string path;
    uint64_t samples = 0;
    uint64_t events = 0;   // fixation, saccade and blink starts and ends
    uint64_t messages = 0;
    uint64_t blocks = 0;
    uint64_t bodyBytes = 0; // item stream, before compression
    uint64_t fileBytes = 0;
    uint64_t entries() const { return samples + events + messages + blocks * (4 + 2); }
};

namespace detail {

using orbtest::Bytes;

// Buffered output of the item stream, plain or through deflate.
class BodySink {
public:
    BodySink(FILE* file, bool compressed) : file_(file), compressed_(compressed)
    {
        if (compressed_) {
            zs_ = z_stream{};
            if (deflateInit(&zs_, Z_DEFAULT_COMPRESSION) != Z_OK)
                throw std::runtime_error("deflateInit failed");
            out_.resize(1 << 18);
        }
        buffer_.reserve(kFlushAt + 4096);
    }

    Bytes& buffer() { return buffer_; }
    void maybeFlush()
    {
        if (buffer_.size() >= kFlushAt)
            flush(false);
    }
    uint64_t written() const { return total_ + buffer_.size(); }

    void finish() { flush(true); }

private:
    static constexpr size_t kFlushAt = 1 << 20;

    void flush(bool last)
    {
        total_ += buffer_.size();
        if (!compressed_) {
            if (!buffer_.empty() && std::fwrite(buffer_.data(), 1, buffer_.size(), file_) != buffer_.size())
                throw std::runtime_error("write failed");
            buffer_.clear();
            return;
        }
        zs_.next_in = buffer_.data();
        zs_.avail_in = uInt(buffer_.size());
        int flushMode = last ? Z_FINISH : Z_NO_FLUSH;
        int r;
        do {
            zs_.next_out = out_.data();
            zs_.avail_out = uInt(out_.size());
            r = deflate(&zs_, flushMode);
            if (r == Z_STREAM_ERROR)
                throw std::runtime_error("deflate failed");
            size_t n = out_.size() - zs_.avail_out;
            if (n && std::fwrite(out_.data(), 1, n, file_) != n)
                throw std::runtime_error("write failed");
        } while (zs_.avail_out == 0 || (last && r != Z_STREAM_END));
        buffer_.clear();
        if (last)
            deflateEnd(&zs_);
    }

    FILE* file_;
    bool compressed_;
    z_stream zs_{};
    Bytes buffer_;
    Bytes out_;
    uint64_t total_ = 0;
};

// An event waiting for the tracker to write it.
struct Pending {
    uint32_t writeAt;
    uint64_t order;
    orbtest::EventItem item;
};

class Generator {
public:
    Generator(const SyntheticOptions& o, BodySink& sink, SyntheticRecording& out)
        : o_(o), sink_(sink), out_(out), rng_(o.seed)
    {
        perMs_ = o.rate >= 2000.0 ? 2 : 1;
        stepMs_ = perMs_ == 2 ? 1 : std::max(1, int(std::lround(1000.0 / o.rate)));
        eyeFlags_ = uint16_t((o.eyes & 1 ? kLeftEye : 0) | (o.eyes & 2 ? kRightEye : 0));
    }

    void run()
    {
        const double samplesPerTrial = o_.trialSeconds * o_.rate;
        const uint64_t total = uint64_t(std::llround(o_.seconds * o_.rate));
        uint32_t t = o_.startTime;
        uint64_t left = total;
        int trial = 1;
        while (left > 0) {
            uint64_t n = std::min<uint64_t>(left, uint64_t(std::max(1.0, samplesPerTrial)));
            t = block(trial++, t, n);
            left -= n;
            t += 50; // the tracker pauses between trials
        }
    }

private:
    enum Phase { kFixation, kSaccade };

    double uniform(double a, double b) { return std::uniform_real_distribution<double>(a, b)(rng_); }

    void emit(const orbtest::EventItem& e)
    {
        Bytes b = e.bytes();
        Bytes& buf = sink_.buffer();
        buf.insert(buf.end(), b.begin(), b.end());
    }
    void later(uint32_t writeAt, orbtest::EventItem e)
    {
        pending_.push_back(Pending{writeAt, order_++, std::move(e)});
        sorted_ = false;
    }
    void flushPending(uint32_t now, bool all)
    {
        if (pending_.empty())
            return;
        if (!sorted_) {
            std::sort(pending_.begin(), pending_.end(), [](const Pending& a, const Pending& b) {
                return a.writeAt != b.writeAt ? a.writeAt < b.writeAt : a.order < b.order;
            });
            sorted_ = true;
        }
        size_t n = 0;
        while (n < pending_.size() && (all || pending_[n].writeAt <= now))
            emit(pending_[n++].item);
        pending_.erase(pending_.begin(), pending_.begin() + long(n));
    }

    void message(uint32_t t, const std::string& text)
    {
        emit(orbtest::EventItem(MESSAGE, -1).start(t).message(text));
        ++out_.messages;
    }

    // Per recorded eye, the tracker's eye index.
    template <class F>
    void forEyes(F f)
    {
        for (int e = 0; e < 2; ++e)
            if (o_.eyes & (1 << e))
                f(e);
    }

    void startFixation(uint32_t t)
    {
        forEyes([&](int e) {
            later(t + 8, orbtest::EventItem(SFIX, e).start(t).words(kFieldStartGaze, gx10(), gy10()));
            ++out_.events;
        });
    }
    void endFixation(uint32_t from, uint32_t to)
    {
        forEyes([&](int e) {
            later(to + 4, orbtest::EventItem(EFIX, e)
                              .start(from).end(to)
                              .words(kFieldStartGaze, gx10(), gy10()).words(kFieldEndGaze, gx10(), gy10())
                              .words(kFieldAvgGaze, gx10(), gy10()).word(kFieldAvgPupil, pupil_ + 20 * e)
                              .words(kFieldStartRes, 400, 400).words(kFieldEndRes, 400, 400));
            ++out_.events;
        });
    }
    void startSaccade(uint32_t t)
    {
        forEyes([&](int e) {
            later(t + 6, orbtest::EventItem(SSACC, e).start(t).words(kFieldStartGaze, gx10(), gy10()));
            ++out_.events;
        });
    }
    void endSaccade(uint32_t from, uint32_t to)
    {
        forEyes([&](int e) {
            later(to + 4, orbtest::EventItem(ESACC, e)
                              .start(from).end(to)
                              .words(kFieldStartGaze, fromX10_, fromY10_).words(kFieldEndGaze, gx10(), gy10())
                              .words(kFieldStartRes, 400, 400).words(kFieldEndRes, 400, 400).word(kFieldAvgScalar, 3500));
            ++out_.events;
        });
    }
    void blink(uint32_t from, uint32_t to)
    {
        forEyes([&](int e) {
            later(from + 10, orbtest::EventItem(SBLINK, e).start(from));
            later(to + 4, orbtest::EventItem(EBLINK, e).start(from).end(to));
            out_.events += 2;
        });
    }

    int gx10() const { return int(gazeX_ * 10.0); }
    int gy10() const { return int(gazeY_ * 10.0); }

    // One trial: returns the time after its last sample.
    uint32_t block(int trial, uint32_t t0, uint64_t n)
    {
        message(t0 - 5, "TRIALID " + std::to_string(trial));
        const uint16_t flags = uint16_t(kSampleItem | eyeFlags_ | kGazeGroup |
                                        kPupilGroup | kResolutionGroup | kStatusWord);
        emit(orbtest::blockStart(SSAMPLES, t0, o_.rate, flags, 10));
        emit(orbtest::blockStart(SEVENTS, t0, o_.rate, 0, 10, 10, 0x0312,
                                 uint16_t((o_.eyes & 1 ? kEventBlockLeftEye : 0) |
                                          (o_.eyes & 2 ? kEventBlockRightEye : 0))));
        ++out_.blocks;

        Phase phase = kFixation;
        uint32_t phaseStart = t0;
        uint32_t phaseEnd = t0 + uint32_t(uniform(150, 450));
        uint32_t blinkFrom = 0, blinkTo = 0;
        double targetX = gazeX_, targetY = gazeY_;
        startFixation(t0);

        // The time of the block's last sample: a blink never outlasts it.
        const uint64_t msSpan = (n - 1) / uint64_t(perMs_) * uint64_t(stepMs_);
        const uint32_t lastTime = t0 + uint32_t(msSpan);

        orbtest::SampleItem s;
        uint32_t last = t0;
        uint32_t t = t0;
        bool synced = false;
        for (uint64_t i = 0; i < n; ++i) {
            const int sub = perMs_ == 2 ? int(i & 1) : 0;
            if (i > 0 && sub == 0)
                t += uint32_t(stepMs_);

            if (sub == 0 && t >= phaseEnd) {
                if (phase == kFixation) {
                    endFixation(phaseStart, t - uint32_t(stepMs_));
                    phase = kSaccade;
                    phaseStart = t;
                    fromX10_ = gx10();
                    fromY10_ = gy10();
                    targetX = uniform(100, 1820);
                    targetY = uniform(100, 980);
                    bool withBlink = uniform(0, 1) < 0.08;
                    phaseEnd = t + uint32_t(withBlink ? uniform(120, 220) : uniform(20, 60));
                    withBlink = withBlink && phaseEnd < lastTime;
                    startSaccade(t);
                    if (withBlink) {
                        blinkFrom = t + 10;
                        blinkTo = phaseEnd - 10;
                        blink(blinkFrom, blinkTo);
                    } else {
                        blinkFrom = blinkTo = 0;
                    }
                } else {
                    endSaccade(phaseStart, t - uint32_t(stepMs_));
                    phase = kFixation;
                    phaseStart = t;
                    phaseEnd = t + uint32_t(uniform(150, 450));
                    gazeX_ = targetX;
                    gazeY_ = targetY;
                    startFixation(t);
                }
            }
            if (phase == kSaccade) {
                double k = double(t - phaseStart) / double(std::max<uint32_t>(1, phaseEnd - phaseStart));
                gazeX_ += (targetX - gazeX_) * std::min(1.0, k);
                gazeY_ += (targetY - gazeY_) * std::min(1.0, k);
            }
            // Tremor: a few tenths of a pixel.
            noise_ = noise_ * 1103515245u + 12345u;
            const int jitter = int((noise_ >> 16) % 7) - 3;
            const bool closed = blinkTo != 0 && t >= blinkFrom && t <= blinkTo;

            s.flags = uint16_t(flags | (sub ? kHalfMillisecond : 0));
            if (i == 0) {
                s.flags |= kFullTime;
                s.time = t;
            } else {
                s.step = uint8_t(t - last);
            }
            for (int e = 0; e < 2; ++e) {
                s.gaze[e][0] = closed ? int16_t(-32768) : int16_t(gx10() + jitter + e * 3);
                s.gaze[e][1] = closed ? int16_t(-32768) : int16_t(gy10() - jitter);
                s.pupil[e] = closed ? int16_t(0) : int16_t(pupil_ + 20 * e + jitter);
            }
            s.res[0] = s.res[1] = 400;
            s.status = closed ? 0x0400 : 0;
            s.writeTo(sink_.buffer());
            ++out_.samples;
            last = t;

            if (!synced && t >= t0 + 100) {
                message(t, "stimulus");
                synced = true;
            }
            flushPending(t, false);
            sink_.maybeFlush();
        }

        // The trial ends: the running event is closed at the last sample.
        if (phase == kFixation)
            endFixation(phaseStart, last);
        else
            endSaccade(phaseStart, last);
        flushPending(last, true);
        message(last, "trial complete");
        emit(orbtest::blockEnd(ESAMPLES, last + 1));
        emit(orbtest::blockEnd(EEVENTS, last + 1));
        return last + 1;
    }

    const SyntheticOptions& o_;
    BodySink& sink_;
    SyntheticRecording& out_;
    std::mt19937 rng_;
    int perMs_ = 1;
    int stepMs_ = 1;
    uint16_t eyeFlags_ = 0;
    double gazeX_ = 960, gazeY_ = 540;
    int fromX10_ = 9600, fromY10_ = 5400;
    int pupil_ = 900;
    uint32_t noise_ = 1;
    std::vector<Pending> pending_;
    bool sorted_ = true;
    uint64_t order_ = 0;
};

} // namespace detail

// Writes a recording to path and tells what it holds.
inline SyntheticRecording writeSyntheticRecording(const std::string& path, const SyntheticOptions& o)
{
    SyntheticRecording out;
    out.path = path;
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f)
        throw std::runtime_error("cannot write " + path);
    std::string head = o.compressed ? "NORVANE_LAB_HSPDFILE ZIP\n" : "NORVANE_LAB_COMBFILE\n";
    head += "DATE: Sat Nov 21 12:00:00 2026\n";
    head += "VERSION: OCULANT MK 3\n";
    head += "SOURCE: OCULANT MK\n";
    head += "CONVERTER: NVEB1.6.2\n";
    head += "ENDP:\n";
    std::fwrite(head.data(), 1, head.size(), f);
    {
        detail::BodySink sink(f, o.compressed);
        detail::Generator(o, sink, out).run();
        orbtest::put16(sink.buffer(), 0); // the end of the item stream
        out.bodyBytes = sink.written();
        sink.finish();
    }
    out.fileBytes = uint64_t(std::ftell(f));
    std::fclose(f);
    return out;
}

} // namespace orbbench

#endif
