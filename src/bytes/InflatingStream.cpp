#include "InflatingStream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "base.h"

namespace {

// Deflated recordings rarely shrink by more than this.
constexpr uint64_t kExpectedRatio = 16;
// How much must be there (or the body be done) before the window is
// refilled: any amount above 0 keeps the reads from meeting a false end.
constexpr uint64_t kRefillAhead = 256 * 1024;

} // namespace

std::unique_ptr<InflatingStream> InflatingStream::open(std::unique_ptr<FileInputStream> source, uint64_t limit)
{
    // Two descriptions of one unnamed file: the thread writes through one,
    // the stream reads through the other, each at its own offset.
    const char* dir = std::getenv("TMPDIR");
    std::string path;
    path.append(dir && *dir ? dir : "/tmp").append("/orbapi-XXXXXX");
    const int writer = mkstemp(&path[0]);
    const int reader = writer >= 0 ? ::open(path.c_str(), O_RDONLY) : -1;
    if (writer >= 0)
        unlink(path.c_str());
    FILE* file = reader >= 0 ? fdopen(reader, "rb") : nullptr;
    if (!file) {
        if (reader >= 0)
            close(reader);
        if (writer >= 0)
            close(writer);
        throw ORBException("Failed to create temp file \n");
    }
    // Unbuffered: the file grows while it is read, and a buffer filled
    // ahead of the writer would keep a short tail.
    setvbuf(file, nullptr, _IONBF, 0);
    return std::unique_ptr<InflatingStream>(new InflatingStream(file, writer, std::move(source), limit));
}

InflatingStream::InflatingStream(FILE* reader, int writer, std::unique_ptr<FileInputStream> source, uint64_t limit)
    : FileInputStream(reader), source_(std::move(source)), writer_(writer), limit_(limit)
{
    struct stat st;
    FILE* compressed = source_->getRawFile();
    if (fstat(fileno(compressed), &st) == 0 && st.st_size > 0) {
        expectedBytes_ = uint64_t(st.st_size) * kExpectedRatio;
        const long at = std::ftell(compressed);
        sourceBytes_ = at >= 0 && uint64_t(at) < uint64_t(st.st_size) ? uint64_t(st.st_size) - uint64_t(at) : 0;
    }
    thread_ = std::thread([this] { produce(); });
}

InflatingStream::~InflatingStream()
{
    stop_ = true;
    thread_.join();
    close(writer_);
}

void InflatingStream::produce()
{
    InflateCut cut;
    inflateInto(source_->getRawFile(), [this](const unsigned char* data, size_t n) {
        if (stop_)
            return false;
        for (size_t done = 0; done < n;) {
            const ssize_t w = ::write(writer_, data + done, n - done);
            if (w <= 0)
                return false;
            done += size_t(w);
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            produced_ += n;
        }
        ready_.notify_all();
        return true;
    }, &cut, limit_);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        cut_ = cut;
        done_ = true;
    }
    ready_.notify_all();
}

void InflatingStream::tellCut()
{
    if (!cut_.reached || cutTold_)
        return;
    cutTold_ = true;
    logInflateLimit(limit_);
}

bool InflatingStream::refill()
{
    {
        const uint64_t want = uint64_t(offset()) + kRefillAhead;
        std::unique_lock<std::mutex> lock(mutex_);
        ready_.wait(lock, [&] { return done_ || produced_ >= want; });
        if (done_ && uint64_t(offset()) >= produced_)
            tellCut(); // this read meets the cut
    }
    return FileInputStream::refill();
}

InputStream::DataEnd InflatingStream::dataEnd()
{
    std::unique_lock<std::mutex> lock(mutex_);
    ready_.wait(lock, [&] { return done_; });
    tellCut();
    DataEnd end;
    end.size = int64_t(produced_);
    end.inflated = true;
    if (cut_.reached)
        end.sourceLeft = int64_t(sourceBytes_ > cut_.inputUsed ? sourceBytes_ - cut_.inputUsed : 0);
    return end;
}
