// The item stream of a compressed container: the body is inflated on a
// thread of its own into a private temporary file, and the stream reads
// that file as far as the thread has got, so that inflating and scanning
// overlap.  Once the body is inflated the stream is a plain file stream
// over it; what a damaged body yields before its fault is the stream.
#ifndef ORBAPI_INFLATINGSTREAM_H
#define ORBAPI_INFLATINGSTREAM_H

#include <atomic>
#include <cstdio>
#include <functional>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

#include "NVIO.h"

// The most an inflated body may hold: every stream position fits a signed
// 32-bit index entry.  Inflating stops there with a log line; the bytes
// before it are kept.
constexpr uint64_t kInflatedBodyLimit = 0x7FFFFFFFu;

// Whether inflating stopped at its limit, and the compressed bytes it had
// taken by then.
struct InflateCut {
    bool reached = false;
    uint64_t inputUsed = 0;
};

// The line that says a body was cut at `limit`.
void logInflateLimit(uint64_t limit);

// Inflates the zlib stream in the `size` bytes at `source` into a memory
// stream that owns its bytes (and knows itself an inflated body).  A
// damaged or cut stream yields what inflated before the damage; reaching the
// limit logs its line here.  Throws std::bad_alloc when memory runs out.
std::unique_ptr<InputStream> inflateToMemory(const unsigned char* source, size_t size);
// The same with a smaller limit than kInflatedBodyLimit.
std::unique_ptr<InputStream> inflateToMemory(const unsigned char* source, size_t size, uint64_t limit);
// Inflates the zlib stream that starts at source's position (up to `limit`
// bytes), handing each piece to sink; a sink that
// returns false stops it (Z_ERRNO).  Logs nothing: a cut at the limit is
// told in *cut.
int inflateInto(FILE* source, const std::function<bool(const unsigned char*, size_t)>& sink, InflateCut* cut,
                uint64_t limit = kInflatedBodyLimit);

class InflatingStream : public FileInputStream {
public:
    // Takes over `source`, whose reads stand at the start of the compressed
    // body, and starts inflating it.  Throws ORBException("Failed to create
    // temp file \n") when no temporary file can be made.  `limit` is
    // smaller than kInflatedBodyLimit only in tests.
    static std::unique_ptr<InflatingStream> open(std::unique_ptr<FileInputStream> source,
                                                 uint64_t limit = kInflatedBodyLimit);
    ~InflatingStream() override;

    // A generous guess of the inflated size, from the compressed size.
    // The body is still growing while it is scanned: its expected size.
    int64_t length() const override { return int64_t(expectedBytes_); }
    // Waits until the body is inflated.  A body cut at the limit has its
    // line logged then, on the calling thread, unless a read met the cut
    // first and logged it.
    DataEnd dataEnd() override;

private:
    InflatingStream(FILE* reader, int writer, std::unique_ptr<FileInputStream> source, uint64_t limit);

    // Waits until the window can be filled whole, or the body is done.
    bool refill() override;
    void produce();
    // Logs the limit's line once, on the reading thread (call with mutex_).
    void tellCut();

    std::unique_ptr<FileInputStream> source_;
    const int writer_;
    const uint64_t limit_;
    uint64_t expectedBytes_ = 0;
    std::mutex mutex_;
    std::condition_variable ready_;
    uint64_t produced_ = 0; // bytes written to the temporary file
    bool done_ = false;
    InflateCut cut_;          // valid once done_
    uint64_t sourceBytes_ = 0; // of the compressed body
    bool cutTold_ = false;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

#endif
