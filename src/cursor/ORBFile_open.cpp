// Opening a recording: the magic line, the preamble, the compressed body,
// and the construction of the index.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bytes.h"
#include "base.h"
#include "ORBFile.h"


namespace {

struct Magic {
    const char* line;
    ContainerForm form;
};

const Magic kMagics[] = {
    {ORB_MAGIC_COMPRESSED, ContainerForm::Compressed},
    {"NORVANE_LAB_HSPDFILE ZIP\r\n", ContainerForm::Compressed},
    {ORB_MAGIC_PLAIN, ContainerForm::Plain},
    {"NORVANE_LAB_COMBFILE\r\n", ContainerForm::Plain},
    {"NORVANE_LAB_HSPDFILE\n", ContainerForm::Plain},
    {"NORVANE_LAB_HSPDFILE\r\n", ContainerForm::Plain},
};

constexpr int kMagicLineLimit = 35;
constexpr int kPreambleLineLimit = 200;
constexpr int kPreambleLimit = 2000; // accumulated text, terminator included

} // namespace

ORBFile::ORBFile(const char* path, int options, bool loadEvents_, bool loadSamples_, IndexSorting sorting,
                 ScannedSamples* scanned)
    : loadEvents(loadEvents_), loadSamples(loadSamples_), indexSorting(sorting)
{
    setOptions(options);
    open(std::make_unique<FileInputStream>(path), scanned);
}

ORBFile::ORBFile(const void* data, size_t size, int options, bool loadEvents_, bool loadSamples_,
                 IndexSorting sorting, ScannedSamples* scanned)
    : loadEvents(loadEvents_), loadSamples(loadSamples_), indexSorting(sorting)
{
    setOptions(options);
    if (!data && size != 0) {
        orb_log("The memory image could not be read\n");
        throw ORBException("File Could not be opened!");
    }
    open(std::make_unique<MemoryInputStream>(data, size), scanned);
}

void ORBFile::setOptions(int options)
{
    consistencyMode = options & 3;
    if (consistencyMode != 0)
        fixupMode = consistencyMode == 2;
    tolerantScan = (options & 4) != 0;
    timeFixupOff = (options & 8) != 0;
    std::memset(eventPairs, 0xFF, sizeof eventPairs);
}

void ORBFile::open(std::unique_ptr<InputStream> source, ScannedSamples* scanned)
{
    decoder.open(std::move(source));

    ContainerForm form = readMagic();
    readPreamble();
    if (form == ContainerForm::Compressed) {
        std::unique_ptr<InputStream> body = decoder.releaseStream();
        if (auto* memory = dynamic_cast<MemoryInputStream*>(body.get())) {
            decoder.continueWith(inflateToMemory(memory->rest(), memory->restSize()));
        } else {
            // A damaged body is not an error here: what inflated becomes the
            // item stream, and the readers meet its end as end of file.
            std::unique_ptr<FileInputStream> file(static_cast<FileInputStream*>(body.release()));
            decoder.continueWith(InflatingStream::open(std::move(file)));
        }
    }
    samples = std::make_unique<SampleReader>(decoder, index, fixupMode);

    ScanOptions scan;
    scan.tolerant = tolerantScan;
    scan.loadEvents = loadEvents;
    scan.loadSamples = loadSamples;
    scan.fixupMode = fixupMode;
    scan.sortWhileScanning = indexSorting == IndexSorting::WhileScanning;
    const ScanFacts facts = preScan(decoder, index, scan, scanned);
    if (consistencyMode != 0)
        index.checkConsistency(fixupMode);
    sayEarlyEnd(facts);
}

// The one line that says the items handed out end before the bytes do,
// logged so that it stays the opening thread's last error.
void ORBFile::sayEarlyEnd(const ScanFacts& facts)
{
    const char* reason = facts.stopReason;
    int64_t at = facts.stopAt;
    int64_t unreadFrom = facts.unreadFrom;
    if (facts.zeroEvents != 0) {
        // The walk ends at the first entry of code 0 (an event of type 0),
        // which goes before the end of a scan.
        const auto& items = index.items;
        const auto zero = std::find_if(items.begin(), items.end(), [](const ORBItem& i) { return i.code() == 0; });
        if (zero != items.end() && zero + 1 != items.end()) {
            reason = "an event of type 0";
            at = unreadFrom = int64_t(uint32_t(zero->position)) - 2; // its tag
        }
    }
    const InputStream::DataEnd end = decoder.stream->dataEnd();
    int64_t unread;
    const char* unit = "";
    if (reason == facts.stopReason && end.sourceLeft >= 0 && decoder.stream->eof()) {
        // The scan ran into the end of a body cut at the inflating limit.
        reason = "the inflating limit";
        at = end.size;
        unread = end.sourceLeft;
        unit = "compressed ";
    } else if (reason && end.size >= 0 && unreadFrom < end.size) {
        unread = end.size - unreadFrom;
    } else {
        return;
    }
    orb_log_lasting("Reading stopped at byte %lld of the %s: %s (%lld %sbytes not read)\n", static_cast<long long>(at),
                    end.inflated ? "inflated body" : "file", reason, static_cast<long long>(unread), unit);
}

ORBFile::~ORBFile() { decoder.close(); }

ContainerForm ORBFile::readMagic()
{
    char line[278] = {};
    if (decoder.stream->getTerminatedString(line, kMagicLineLimit) == 0) {
        orb_log("error reading orb file 6\n");
        throw ORBException("End of file Exception");
    }
    for (const Magic& m : kMagics)
        if (std::strcmp(line, m.line) == 0)
            return m.form;
    throw ORBException("Bad magic.  Corrupt orb file. \n");
}

int ORBFile::readPreamble()
{
    char buffer[kPreambleLimit];
    getPreamble(buffer, kPreambleLimit);
    preambleLength = int(std::strlen(buffer));
    preambleText.reset(new char[size_t(preambleLength) + 1]);
    std::memcpy(preambleText.get(), buffer, size_t(preambleLength) + 1);

    // The writer's version: "NVEB1.<major>." - writers above 5 write UTF-8.
    if (const char* token = std::strstr(preambleText.get(), "NVEB1.")) {
        long major = std::strtol(token + 6, nullptr, 10);
        utf8encoding = major > 5 ? 1 : 0;
    }
    return 0;
}

int ORBFile::getPreamble(char* buffer, int size)
{
    std::string text;
    text.reserve(kPreambleLimit);
    if (size > 0)
        std::memset(buffer, 0, size_t(size));
    char line[kPreambleLineLimit] = {};
    for (;;) {
        int r = decoder.get_combfile_preamble_text(line, kPreambleLineLimit);
        if (r == -1)
            return -1;
        if (r == 1)
            break;
        if (text.size() + 3 + std::strlen(line) > size_t(kPreambleLimit - 1))
            throw ORBException("Preamble longer than %d characters.  Corrupt orb file. \n",
                               kPreambleLimit - 1);
        text += "** ";
        text += line;
    }
    if (size > 0) {
        size_t n = std::min(text.size(), size_t(size - 1));
        std::memcpy(buffer, text.data(), n);
        buffer[n] = '\0';
    }
    return 0;
}
