#include "NVIO.h"

#include <algorithm>
#include <cstring>

#include "ORBException.h"
#include "log.h"

// ---------------------------------------------------------------------------
// InputStream: the typed readers when the window runs short.

int InputStream::getByteSlow()
{
    unsigned char b = 0;
    if (getRawData(&b, 1) != 1) {
        orb_log("error reading orb file 11\n");
        throw ORBException("End of file Exception");
    }
    return b;
}

int InputStream::getWordSlow()
{
    unsigned char b[2] = {0, 0};
    int r = getRawData(b, 2);
    if (r != 2) {
        orb_log("error reading orb file 7a r = %d \n", r);
        throw ORBException("End of file Exception");
    }
    return (b[0] << 8) | b[1];
}

unsigned int InputStream::getIntSlow()
{
    unsigned char b[4] = {0, 0, 0, 0};
    if (getRawData(b, 4) != 4) {
        orb_log("error reading orb file 9\n");
        throw ORBException("End of file Exception");
    }
    return (uint32_t(b[0]) << 24) | (uint32_t(b[1]) << 16) | (uint32_t(b[2]) << 8) | b[3];
}

int InputStream::skip(int n)
{
    int done = 0;
    while (done < n) {
        if (cur_ < end_) {
            int take = int(std::min<std::ptrdiff_t>(end_ - cur_, n - done));
            cur_ += take;
            position_ += take;
            done += take;
            continue;
        }
        unsigned char scratch[512];
        int want = std::min<int>(n - done, int(sizeof scratch));
        int got = getRawData(scratch, want);
        done += got;
        if (got < want)
            break;
    }
    return done;
}

int InputStream::getString(char* buffer, int size)
{
    if (getTerminatedString(buffer, size) == 0) {
        orb_log("error reading orb file 6\n");
        throw ORBException("End of file Exception");
    }
    return 0;
}

// ---------------------------------------------------------------------------
// FileInputStream

FileInputStream::FileInputStream(const char* path)
{
    file_ = std::fopen(path, "rb");
    if (!file_) {
        orb_log("The file %s could not be opened\n", path);
        throw ORBException("File Could not be opened!");
    }
    buffer_.reset(new unsigned char[kBufferSize]);
    cur_ = end_ = buffer_.get();
    position_ = int32_t(std::ftell(file_));
}

FileInputStream::FileInputStream(FILE* file) : file_(file)
{
    buffer_.reset(new unsigned char[kBufferSize]);
    cur_ = end_ = buffer_.get();
    std::fseek(file_, 0, SEEK_SET);
    position_ = int32_t(std::ftell(file_));
}

FileInputStream::~FileInputStream()
{
    if (file_)
        std::fclose(file_);
    file_ = nullptr;
}

bool FileInputStream::refill()
{
    bufferStart_ = offset();
    size_t n = std::fread(buffer_.get(), 1, kBufferSize, file_);
    cur_ = buffer_.get();
    end_ = cur_ + n;
    return n > 0;
}

int FileInputStream::getRawData(void* buffer, int count)
{
    auto* out = static_cast<unsigned char*>(buffer);
    int done = 0;
    while (done < count) {
        if (cur_ == end_ && !refill()) {
            eof_ = true;
            break;
        }
        int take = int(std::min<std::ptrdiff_t>(end_ - cur_, count - done));
        std::memcpy(out + done, cur_, size_t(take));
        cur_ += take;
        done += take;
    }
    position_ += done;
    return done;
}

int FileInputStream::seek(long position)
{
    position_ = int32_t(position);
    // A target inside the buffered window needs no system call.
    long buffered = end_ - buffer_.get();
    if (position >= bufferStart_ && position <= bufferStart_ + buffered) {
        cur_ = buffer_.get() + (position - bufferStart_);
        eof_ = false;
        return 0;
    }
    int r = std::fseek(file_, position, SEEK_SET);
    if (r == 0) {
        bufferStart_ = position;
        cur_ = end_ = buffer_.get();
        eof_ = false;
    }
    return r;
}

int FileInputStream::getTerminatedString(char* buffer, int size)
{
    if (size <= 0)
        return -1;
    int n = 0;
    bool hitEnd = false;
    while (n < size - 1) {
        if (cur_ == end_ && !refill()) {
            eof_ = hitEnd = true;
            break;
        }
        char c = char(*cur_++);
        buffer[n++] = c;
        if (c == '\n')
            break;
    }
    if (n == 0 && hitEnd)
        return -1; // the buffer is left as it was
    buffer[n] = '\0';
    int len = int(std::strlen(buffer));
    position_ += len;
    return len;
}

FILE* FileInputStream::getRawFile()
{
    // Hand the file over positioned where this stream's reads have got to.
    long at = offset();
    std::fseek(file_, at, SEEK_SET);
    bufferStart_ = at;
    cur_ = end_ = buffer_.get();
    return file_;
}
