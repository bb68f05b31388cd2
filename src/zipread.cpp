// Inflating the body of a compressed container.
#include <zlib.h>

#include "ORBFile.h"

int inflateInto(FILE* source, const std::function<bool(const unsigned char*, size_t)>& sink)
{
    constexpr unsigned kChunk = 16384;
    unsigned char in[kChunk];
    unsigned char out[kChunk];

    z_stream strm{};
    int ret = inflateInit(&strm);
    if (ret != Z_OK)
        return ret;

    do {
        strm.avail_in = unsigned(std::fread(in, 1, kChunk, source));
        if (std::ferror(source)) {
            inflateEnd(&strm);
            return Z_ERRNO;
        }
        if (strm.avail_in == 0)
            break;
        strm.next_in = in;
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
            if (!sink(out, kChunk - strm.avail_out)) {
                inflateEnd(&strm);
                return Z_ERRNO;
            }
        } while (strm.avail_out == 0);
    } while (ret != Z_STREAM_END);

    inflateEnd(&strm);
    return ret == Z_STREAM_END ? Z_OK : Z_DATA_ERROR;
}

int do_uncompress(FILE* source, FILE* destination)
{
    return inflateInto(source, [destination](const unsigned char* data, size_t n) {
        return std::fwrite(data, 1, n, destination) == n && !std::ferror(destination);
    });
}
