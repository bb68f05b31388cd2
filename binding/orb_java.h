// The Java binding: the native object behind one com.norvanelab.orbapi.ORB
// and the routines that turn the library's records into Java objects.
//
// Everything declared here is internal to the library (hidden visibility);
// only the JNIEXPORT entry points in orb_java.cpp are exported.
#ifndef ORBAPI_ORB_JAVA_H
#define ORBAPI_ORB_JAVA_H

#include <jni.h>

#include <cstdint>
#include <memory>

#include "orbapi.h"

#define ORBAPI_INTERNAL __attribute__((visibility("hidden")))

// Base of the native file object: nothing but the virtual destructor, so
// that a front end may put a richer object behind the same handle.
class ORBAPI_INTERNAL ORB {
public:
    virtual ~ORB();
};

// One file opened from Java.  The Java object keeps this object's address
// in its long field "orbID"; 0 there means no file is open.
class ORBAPI_INTERNAL ORBX : public ORB {
public:
    ORBX() = default;
    ORBX(const ORBX&) = delete;
    ORBX& operator=(const ORBX&) = delete;
    // Closes the file (when one was opened) and frees the trial identifiers
    // the file was pointing at.
    ~ORBX() override;

    // Extension points for a front end that wants frame messages or a frame
    // lookup table.  This library produces neither: both return at once.
    void generateFrameMessageEvent(unsigned int time);
    void initializeLookupTable(float sampleRate);

    _ORBFILE* handle = nullptr;     // the open file; null when opening failed
    char fileName[2048] = {};       // the path as opened (cut at 2047 bytes)
    FEVENT* pendingMessage = nullptr; // a message to deliver between items
    void* hookState = nullptr;      // reserved for the hooks
    uint8_t frameMessages = 0;      // open mode 1 or 3
    uint8_t frameLookup = 0;        // open mode 2 or 3
    uint8_t pendingDone = 1;        // the pending message has been delivered
    uint8_t pendingReady = 0;       // the pending message is the current item
    int32_t hookWords[4] = {0, -1, 0, -1}; // reserved for the hooks
    uint32_t blockCounter = 0;      // recording items passed without a lookup table

    // The trial identifiers handed to the file, which keeps the pointers:
    // they live as long as this object or until they are replaced.
    std::unique_ptr<char[]> trialStartId;
    std::unique_ptr<char[]> trialEndId;
};

// Checks for a pending Java exception after a call into the runtime.  When
// there is one, logs "Exception caught in native code at lint <site>",
// describes it on the runtime's error stream and clears it.  Returns true
// when an exception was pending.
ORBAPI_INTERNAL bool checkJavaException(JNIEnv* env, int site);

// The native object behind a Java ORB object, read from its "orbID" field;
// null when no file is open.
ORBAPI_INTERNAL ORBX* getORBID(JNIEnv* env, jobject self);

// Fill a Sample / Event / RecordingInfo object through its static
// getFilledObject method.  newEvent logs "Types not matched" when the
// record's type differs from `expectedType`, and fills the target anyway.
ORBAPI_INTERNAL void newSample(JNIEnv* env, jobject target, FSAMPLE* sample);
ORBAPI_INTERNAL void newEvent(JNIEnv* env, jobject target, FEVENT* event, int expectedType);
ORBAPI_INTERNAL void newRecording(JNIEnv* env, jobject target, const Recording* rec);

// Refills the ORB object's "trialObject" (and its "recordingObject") from
// the file's current trial and returns it; null when there is no current
// trial.
ORBAPI_INTERNAL jobject getCurrentTrialHeaders(JNIEnv* env, jobject self);

// A new float[count] holding `values`; with copyFirst the values are copied
// into a buffer of our own first.  Null when the array cannot be made.
ORBAPI_INTERNAL jfloatArray getNewFloatArray(JNIEnv* env, const float* values, int count,
                                             int copyFirst);

// The log function installed while files are open from Java: hands each
// line to the static ORB.printLog(String) of the calling thread's runtime.
// Lines from threads the runtime does not know are dropped.
ORBAPI_INTERNAL void orbconverter_log(char* text);

#endif
