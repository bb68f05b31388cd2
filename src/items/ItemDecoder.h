// Bytes to items: the item stream of a recording, the facts of its preamble
// that decoding depends on, and the decoders of its items with the state
// they carry from item to item (scales and rate of the block in force, the
// time base of the samples, a tag read ahead).
#ifndef ORBAPI_ITEMDECODER_H
#define ORBAPI_ITEMDECODER_H

#include <cstdint>
#include <memory>

#include "EData.h"
#include "ORBItem.h"
#include "bytes.h"
#include "Sample.h"
#include "orbapi.h"

class ItemDecoder {
public:
    // Starts reading `source` from its first byte (the magic line).
    void open(std::unique_ptr<InputStream> source);
    // Hands the stream over, to go on (continueWith) with what is made of
    // it (an inflated body).
    std::unique_ptr<InputStream> releaseStream() { return std::move(stream); }
    void continueWith(std::unique_ptr<InputStream> source) { stream = std::move(source); }
    // The stream is done with.
    void close();

    // Reads the next preamble line into line (size bytes): 0 a line, 1 the
    // preamble is complete (its end line read now or before), -1 when
    // nothing can be read.  The tracker's revision and model lines set
    // those facts.
    int get_combfile_preamble_text(char* line, int size);

    // -1 not open, 1 stream at end of file, 0 ready, 2 still in the preamble.
    int combfile_status() const;

    // Reads the next tag: 1 sample (or end of file), 0 event, -1 no item,
    // 2 preamble incomplete.
    int next_combfile_item(unsigned short* type);
    // Decodes the sample whose tag is pending (or the next one).  A caller
    // that knows the sample's time passes it as expectedTime (0 otherwise).
    // 0, -1 when there is no sample, -2 when the pending tag is an event's.
    // Throws ORBException on a short read unless catchErrors.
    int read_combfile_sample_noexcept(Sample* sample, unsigned int expectedTime);
    int read_combfile_sample(Sample* sample, unsigned int expectedTime, int catchErrors);
    // read_combfile_sample with no expected time for a reader that needs
    // only the sample's time, flags and extra-data type: the rest of
    // sample->fs is left as it was.  The same bytes are consumed, with the
    // same effect on the decoder, the same results and the same failures.
    int frame_combfile_sample(Sample* sample, int catchErrors);
    // Decodes the event whose tag is pending (or the next one) into
    // event->fe: 0, -1 when there is none or it is damaged, -2 when the
    // pending tag is a sample's.  Block starts change the decoder state.
    int read_combfile_event_noexcept(EData* event);
    int read_combfile_event(EData* event, int catchErrors);
    float get_prescaled_word(float divisor);
    // Stands the stream on the index entry `item`, its tag already read.
    void resetPosition(const ORBItem& item)
    {
        stream->seek(long(item.position));
        pendingTag = item.headerWord;
    }

private:
    // Widens the span of sample times seen by `time`.
    void noteSampleTime(uint32_t time);

public:

    // Stream and preamble.
    std::unique_ptr<InputStream> stream;
    int16_t itemReadingEnabled = 1;
    int16_t isOpen = 0;
    int16_t preambleComplete = 0;
    uint16_t trackerRevision = 0; // VERSION line; 0 read as 1
    uint16_t trackerModel = 1;    // 1 default, 2 MK, 3 HQ

    // Decoder state: scale values, rate and recording words set by block
    // starts; times kept by the sample decoder.
    float gazeDivisor = 1.0f;  // divisor of gaze and resolution words
    float secondScale = 10.0f; // scale of pupil values in events
    float thirdScale = 1.0f;
    float fourthScale = 1.0f;
    uint32_t lastSampleTime = 0;
    uint32_t earliestSampleTime = 0;
    uint32_t latestSampleTime = 0;
    float sampleRate = 250.0f;
    int16_t recordingState = 1;
    int16_t modeValue = 0;   // high byte of the block's mode word
    int16_t levelValue = 0;  // its middle four bits: the filter level
    int16_t lowModeValue = 0; // its low four bits
    uint16_t currentSampleFlags = 0; // non-zero while a sample block runs
    uint16_t eventBlockWord = 0;
    uint16_t eventBlockWord2 = 0;
    ORB_MESSAGE message{};     // shared by every message of this file
    uint16_t pendingTag = 0;   // tag read but not yet consumed
    // Whether the last block start decoded gave the decoder the same state
    // whatever was decoded before it (it carried its own rate).
    bool blockSelfContained = false;
    int16_t eventEye = 0;        // eye of the event being decoded
};

#endif
