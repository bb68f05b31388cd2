#include "NVIO.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "base.h"

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
            advance(take);
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
// WindowedInputStream

int WindowedInputStream::getRawData(void* buffer, int count)
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
    advance(done);
    return done;
}

int WindowedInputStream::seek(long position)
{
    position_ = int32_t(uint32_t(position));
    // A target inside the window needs no work.
    if (position >= windowStart_ && position - windowStart_ <= end_ - base_) {
        cur_ = base_ + (position - windowStart_);
        eof_ = false;
        return 0;
    }
    int r = reposition(position);
    if (r == 0)
        eof_ = false;
    return r;
}

int WindowedInputStream::getTerminatedString(char* buffer, int size)
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
    advance(len);
    return len;
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
    base_ = cur_ = end_ = buffer_.get();
    position_ = int32_t(std::ftell(file_));
}

FileInputStream::FileInputStream(FILE* file) : file_(file)
{
    buffer_.reset(new unsigned char[kBufferSize]);
    base_ = cur_ = end_ = buffer_.get();
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
    windowStart_ = offset();
    size_t n = std::fread(buffer_.get(), 1, kBufferSize, file_);
    base_ = cur_ = buffer_.get();
    end_ = cur_ + n;
    return n > 0;
}

int FileInputStream::reposition(long position)
{
    int r = std::fseek(file_, position, SEEK_SET);
    if (r == 0) {
        windowStart_ = position;
        base_ = cur_ = end_ = buffer_.get();
    }
    return r;
}

FILE* FileInputStream::getRawFile()
{
    // Hand the file over positioned where this stream's reads have got to.
    long at = offset();
    std::fseek(file_, at, SEEK_SET);
    windowStart_ = at;
    base_ = cur_ = end_ = buffer_.get();
    return file_;
}

int64_t FileInputStream::length() const
{
    struct stat st;
    if (fstat(fileno(file_), &st) != 0 || !S_ISREG(st.st_mode))
        return -1;
    return int64_t(st.st_size);
}

// ---------------------------------------------------------------------------
// MemoryInputStream

MemoryInputStream::MemoryInputStream(const void* data, size_t size)
    : data_(static_cast<const unsigned char*>(data)), size_(data ? size : 0)
{
    base_ = cur_ = data_;
    end_ = data_ ? data_ + size_ : data_;
}

MemoryInputStream::MemoryInputStream(std::unique_ptr<unsigned char[]> owned, size_t size)
    : MemoryInputStream(owned.get(), size)
{
    owned_ = std::move(owned);
}

int MemoryInputStream::reposition(long position)
{
    if (position < 0)
        return -1; // as fseek: a negative offset is refused
    if (size_t(position) <= size_) {
        windowStart_ = 0;
        base_ = data_;
        end_ = data_ + size_;
        cur_ = data_ + position;
    } else {
        // Past the end, as a file allows: nothing there to read.
        windowStart_ = position;
        base_ = cur_ = end_ = data_ + size_;
    }
    return 0;
}
