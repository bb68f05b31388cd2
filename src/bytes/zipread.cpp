// Inflating the body of a compressed container, piece by piece or into memory.
#include <zlib.h>

#include <algorithm>
#include <cstring>

#include "InflatingStream.h"
#include "base.h"

namespace {

constexpr unsigned kChunk = 16384;

// Inflates the zlib stream that `read` supplies and hands what it produces
// to `write`, at most `limit` bytes of it.  read(&bytes) points bytes at the
// next input and returns its size (0 at the end of the input, -1 on a read
// error); write(bytes, n) returns false on a write error.  Returns 0 when
// the stream ended or the limit was reached, else a negative zlib code.
// When the limit is reached, *cut gets the input bytes inflated so far.
template <class Read, class Write>
int inflateBody(Read read, Write write, uint64_t limit, InflateCut* cut = nullptr)
{
    unsigned char out[kChunk];

    z_stream strm{};
    int ret = inflateInit(&strm);
    if (ret != Z_OK)
        return ret;

    uint64_t total = 0;
    do {
        const unsigned char* input = nullptr;
        const long got = read(&input);
        if (got < 0) {
            inflateEnd(&strm);
            return Z_ERRNO;
        }
        if (got == 0)
            break;
        strm.avail_in = unsigned(got);
        strm.next_in = const_cast<unsigned char*>(input);
        do {
            strm.avail_out = kChunk;
            strm.next_out = out;
            ret = inflate(&strm, Z_NO_FLUSH);
            switch (ret) {
            case Z_NEED_DICT:
                ret = Z_DATA_ERROR;
                [[fallthrough]];
            case Z_DATA_ERROR:
            case Z_MEM_ERROR:
                inflateEnd(&strm);
                return ret;
            default:
                break;
            }
            uint64_t have = kChunk - strm.avail_out;
            const bool full = have > limit - total;
            if (full)
                have = limit - total;
            if (!write(out, size_t(have))) {
                inflateEnd(&strm);
                return Z_ERRNO;
            }
            total += have;
            if (full) {
                if (cut) {
                    cut->reached = true;
                    cut->inputUsed = strm.total_in;
                }
                inflateEnd(&strm);
                return Z_OK;
            }
        } while (strm.avail_out == 0);
    } while (ret != Z_STREAM_END);

    inflateEnd(&strm);
    return ret == Z_STREAM_END ? Z_OK : Z_DATA_ERROR;
}

// The input of inflateBody from a file, read in chunks into `in`.
auto fileReader(FILE* source, unsigned char* in)
{
    return [source, in](const unsigned char** bytes) -> long {
        size_t n = std::fread(in, 1, kChunk, source);
        if (std::ferror(source))
            return -1;
        *bytes = in;
        return long(n);
    };
}

} // namespace

void logInflateLimit(uint64_t limit)
{
    orb_log("Inflated body larger than %llu bytes; the rest is not read \n", static_cast<unsigned long long>(limit));
}

int inflateInto(FILE* source, const std::function<bool(const unsigned char*, size_t)>& sink, InflateCut* cut,
                uint64_t limit)
{
    unsigned char in[kChunk];
    return inflateBody(fileReader(source, in), sink, limit, cut);
}

std::unique_ptr<InputStream> inflateToMemory(const unsigned char* source, size_t size, uint64_t limit)
{
    // Two passes: the first measures, so that the second fills a buffer of
    // exactly the inflated size (no growth, no slack).
    auto reader = [&] {
        return [source, size, at = size_t(0)](const unsigned char** bytes) mutable -> long {
            const size_t n = std::min(size - at, size_t(1) << 30);
            *bytes = source + at;
            at += n;
            return long(n);
        };
    };
    uint64_t total = 0;
    InflateCut cut;
    inflateBody(reader(), [&](const unsigned char*, size_t n) { return total += n, true; }, limit, &cut);
    if (cut.reached)
        logInflateLimit(limit);

    std::unique_ptr<unsigned char[]> body(new unsigned char[size_t(total) + 1]);
    size_t filled = 0;
    inflateBody(
        reader(),
        [&](const unsigned char* bytes, size_t n) {
            std::memcpy(body.get() + filled, bytes, n);
            filled += n;
            return true;
        },
        total);
    auto stream = std::make_unique<MemoryInputStream>(std::move(body), filled);
    stream->markInflated(cut.reached ? int64_t(size - cut.inputUsed) : -1);
    return stream;
}

std::unique_ptr<InputStream> inflateToMemory(const unsigned char* source, size_t size)
{
    return inflateToMemory(source, size, kInflatedBodyLimit);
}
