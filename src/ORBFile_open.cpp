// Opening a recording: the magic line, the preamble, the compressed body,
// and the construction of the index.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "InflatingStream.h"
#include "ORBException.h"
#include "ORBFile.h"
#include "log.h"

std::atomic<int> utf8encoding{0};

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

bool startsWith(const char* s, const char* prefix)
{
    return std::strncmp(s, prefix, std::strlen(prefix)) == 0;
}

} // namespace

ORBFile::ORBFile(const char* path, int options, bool loadEvents_, bool loadSamples_, IndexSorting sorting,
                 ScannedSamples* scanned)
    : loadEvents(loadEvents_), loadSamples(loadSamples_), indexSorting(sorting), scannedSamples(scanned)
{
    setOptions(options);
    open(std::make_unique<FileInputStream>(path));
}

ORBFile::ORBFile(const void* data, size_t size, int options, bool loadEvents_, bool loadSamples_,
                 IndexSorting sorting, ScannedSamples* scanned)
    : loadEvents(loadEvents_), loadSamples(loadSamples_), indexSorting(sorting), scannedSamples(scanned)
{
    setOptions(options);
    if (!data && size != 0) {
        orb_log("The memory image could not be read\n");
        throw ORBException("File Could not be opened!");
    }
    open(std::make_unique<MemoryInputStream>(data, size));
}

void ORBFile::setOptions(int options)
{
    consistencyMode = options & 3;
    if (consistencyMode != 0)
        fixupMode = consistencyMode == 2;
    tolerantScan = (options & 4) != 0;
    timeFixupOff = (options & 8) != 0;

    queue = std::make_unique<SampleQueue>(this);
    std::memset(eventPairs, 0xFF, sizeof eventPairs);
}

void ORBFile::open(std::unique_ptr<InputStream> source)
{
    stream = std::move(source);
    isOpen = 1;

    ContainerForm form = readMagic();
    readPreamble();
    if (form == ContainerForm::Compressed) {
        if (auto* memory = dynamic_cast<MemoryInputStream*>(stream.get())) {
            stream = inflateToMemory(memory->rest(), memory->restSize());
        } else {
            // A damaged body is not an error here: what inflated becomes the
            // item stream, and the readers meet its end as end of file.
            std::unique_ptr<FileInputStream> source(static_cast<FileInputStream*>(stream.release()));
            stream = InflatingStream::open(std::move(source));
        }
    }

    preScan(tolerantScan ? 4 : 0);
    scannedSamples = nullptr;
    if (consistencyMode != 0)
        checkConsistency();
}

ORBFile::~ORBFile()
{
    stream.reset();
    isOpen = 0;
}

ContainerForm ORBFile::readMagic()
{
    char line[278] = {};
    if (stream->getTerminatedString(line, kMagicLineLimit) == 0) {
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
        utf8encoding.store(major > 5 ? 1 : 0);
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
        int r = get_combfile_preamble_text(line, kPreambleLineLimit);
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

int ORBFile::get_combfile_preamble_text(char* line, int size)
{
    if (!line)
        return -1;
    if (combfile_status() < 0 || !itemReadingEnabled)
        return -1;
    if (preambleComplete)
        return 1;

    stream->getString(line, size);
    if (std::strcmp(line, ORB_PREAMBLE_END) == 0) {
        preambleComplete = 1;
        return 1;
    }
    if (startsWith(line, "VERSION: OCULANT MK ")) {
        long revision = std::strtol(line + 20, nullptr, 10);
        trackerRevision = uint16_t(revision == 0 ? 1 : revision);
    } else if (startsWith(line, "SOURCE: OCULANT MK")) {
        trackerModel = 2;
    } else if (startsWith(line, "SOURCE: OCULANT HQ")) {
        trackerModel = 3;
    }
    return 0;
}
