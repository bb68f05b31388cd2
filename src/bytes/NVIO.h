// Byte streams over a recording.  Every byte the library reads passes
// through an InputStream: big-endian typed readers on top of three primitive
// operations and an end-of-data flag.  The typed readers take their bytes
// straight from a window of buffered data when it holds enough, so that
// decoding a field costs a few instructions; the primitives are used only
// at window boundaries.
#ifndef ORBAPI_NVIO_H
#define ORBAPI_NVIO_H

#include <cstdint>
#include <cstdio>
#include <memory>

class InputStream {
public:
    virtual ~InputStream() = default;

    // True once a read has run into the end of the data (not merely when
    // the position equals the size).
    bool eof() const { return eof_; }
    // Reads up to count bytes; returns how many were read.  Short reads are
    // not errors here.
    virtual int getRawData(void* buffer, int count) = 0;
    // Moves to an absolute offset; the position counter takes the value
    // whether or not the move succeeded.  Returns 0 on success.
    virtual int seek(long position) = 0;
    // Reads one line of at most size-1 bytes (keeping its newline when it
    // fits).  Returns its length, or -1 when nothing could be read.
    virtual int getTerminatedString(char* buffer, int size) = 0;

    // Typed readers: big-endian; each logs and throws
    // ORBException("End of file Exception") on a short read.
    int getByte()
    {
        if (cur_ < end_) {
            advance(1);
            return *cur_++;
        }
        return getByteSlow();
    }
    int getWord()
    {
        if (end_ - cur_ >= 2) {
            int v = (cur_[0] << 8) | cur_[1];
            cur_ += 2;
            advance(2);
            return v;
        }
        return getWordSlow();
    }
    unsigned int getInt()
    {
        if (end_ - cur_ >= 4) {
            unsigned int v = (uint32_t(cur_[0]) << 24) | (uint32_t(cur_[1]) << 16) |
                             (uint32_t(cur_[2]) << 8) | uint32_t(cur_[3]);
            cur_ += 4;
            advance(4);
            return v;
        }
        return getIntSlow();
    }
    // The next n bytes in place when the window holds them all (null
    // otherwise); they count as consumed only once passed to consume().
    const unsigned char* peek(size_t n) const { return size_t(end_ - cur_) >= n ? cur_ : nullptr; }
    // Consumes n bytes that peek(n) has shown.
    void consume(size_t n)
    {
        cur_ += n;
        advance(long(n));
    }
    // Skips n bytes as getRawData would consume them; returns the count.
    int skip(int n);
    // Reads a line with getTerminatedString.  Fails (throws) only when the
    // line read is empty; when nothing at all could be read it returns 0 and
    // leaves the buffer as it was (callers watch eof()).
    int getString(char* buffer, int size);

    // Bytes consumed so far, counted from the last seek.
    int32_t position() const { return position_; }
    // Whether position() is the offset of the next byte in the data (it is
    // not when the last seek went elsewhere than it said, or the counter
    // has wrapped): then seeking to a position read earlier comes back to
    // the same byte.
    virtual bool positionIsOffset() const { return false; }
    // Size of the whole data in bytes; -1 when not known.
    virtual int64_t length() const { return -1; }

    // How the data ends, once all of it is there.
    struct DataEnd {
        int64_t size = -1;       // bytes of data; -1 when not known
        bool inflated = false;   // the data is an inflated body
        int64_t sourceLeft = -1; // inflating stopped at its limit: compressed bytes not inflated
    };
    // Waits, for data still arriving, until all of it is there.
    virtual DataEnd dataEnd()
    {
        DataEnd end;
        end.size = length();
        return end;
    }

protected:
    // The window of data that the typed readers may take without a call:
    // [cur_, end_).  Implementations keep position_ in step when they move
    // cur_ themselves.
    const unsigned char* cur_ = nullptr;
    const unsigned char* end_ = nullptr;
    int32_t position_ = 0;
    bool eof_ = false; // set by the implementation

    // Counts n bytes consumed; past 2^31 - 1 the counter wraps round.
    void advance(long n) { position_ = int32_t(uint32_t(position_) + uint32_t(n)); }

private:
    int getByteSlow();
    int getWordSlow();
    unsigned int getIntSlow();
};

// The part common to the concrete streams: every byte they hand out lies in
// the window [cur_, end_), which starts at data offset windowStart_ (the
// byte at base_).  eof(), short reads, line reads and seeks behave exactly
// as feof, fread, fgets and fseek on a file holding the data would.  A
// concrete stream supplies the data: refill() when the window runs out,
// reposition() for a seek outside it.
class WindowedInputStream : public InputStream {
public:
    int getRawData(void* buffer, int count) override;
    int seek(long position) override;
    int getTerminatedString(char* buffer, int size) override;
    bool positionIsOffset() const override { return int64_t(position_) == int64_t(offset()); }

protected:
    // Makes the window hold the bytes that follow it (called only when the
    // window is used up, so at offset()); false when there are none.
    virtual bool refill() = 0;
    // Moves to `position`, outside the window: returns 0 and leaves the
    // window empty or holding that byte, or returns non-zero (the window
    // unchanged) as fseek refuses a negative offset.
    virtual int reposition(long position) = 0;

    // Data offset of the next byte the window hands out.
    long offset() const { return windowStart_ + long(cur_ - base_); }

    const unsigned char* base_ = nullptr;
    long windowStart_ = 0;
};

// A stream over a standard-I/O file, read through a large buffer.
class FileInputStream : public WindowedInputStream {
public:
    // Opens path for reading; logs and throws "File Could not be opened!"
    // when it cannot.
    explicit FileInputStream(const char* path);
    // Adopts an open file (closed with the stream) and rewinds it.
    explicit FileInputStream(FILE* file);
    ~FileInputStream() override;

    FileInputStream(const FileInputStream&) = delete;
    FileInputStream& operator=(const FileInputStream&) = delete;

    // The underlying file, positioned where the stream's reads have got to.
    FILE* getRawFile();
    // The file's size (-1 when it has none, as a pipe).
    int64_t length() const override;

protected:
    bool refill() override;
    int reposition(long position) override;

private:
    static constexpr size_t kBufferSize = 256 * 1024;

    FILE* file_ = nullptr;
    std::unique_ptr<unsigned char[]> buffer_;
};

// A stream over bytes in memory: the whole data is the window.  The bytes
// are read in place; they must outlive the stream unless it owns them.
class MemoryInputStream : public WindowedInputStream {
public:
    // Reads the caller's `size` bytes at `data` (null only when size is 0).
    MemoryInputStream(const void* data, size_t size);
    // Reads, and owns, `size` bytes.
    MemoryInputStream(std::unique_ptr<unsigned char[]> owned, size_t size);

    MemoryInputStream(const MemoryInputStream&) = delete;
    MemoryInputStream& operator=(const MemoryInputStream&) = delete;

    // The bytes from where the stream's reads have got to up to the end.
    const unsigned char* rest() const { return cur_; }
    size_t restSize() const { return size_t(end_ - cur_); }
    int64_t length() const override { return int64_t(size_); }
    // The bytes are an inflated body; sourceLeft as in DataEnd.
    void markInflated(int64_t sourceLeft)
    {
        inflated_ = true;
        sourceLeft_ = sourceLeft;
    }
    DataEnd dataEnd() override
    {
        DataEnd end;
        end.size = int64_t(size_);
        end.inflated = inflated_;
        end.sourceLeft = sourceLeft_;
        return end;
    }

protected:
    bool refill() override { return false; }
    int reposition(long position) override;

private:
    std::unique_ptr<unsigned char[]> owned_;
    const unsigned char* data_;
    size_t size_;
    bool inflated_ = false;
    int64_t sourceLeft_ = -1;
};

#endif
