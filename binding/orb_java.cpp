// The native side of com.norvanelab.orbapi.ORB and DefaultOptionAdapter,
// and the marshalling of records into the front end's objects.
//
// Each entry point finds its ORBX through the Java object's "orbID" field,
// forwards to the function interface, and hands records over by calling the
// static getFilledObject method of the target's class with every member of
// the record as an argument; the Java classes store what they are given.
//
// Rules kept throughout:
// - After a call into the runtime that can raise, a pending exception is
//   logged with the number of the check site, described and cleared; the
//   entry point then carries on with what it has.  The numbers are fixed:
//   1xx opening and closing, 2xx reading, 3xx strings, 4xx trials,
//   5xx bookmarks, 6xx formatting.
// - Per-record paths open a local reference frame of their own, so a walk
//   over millions of items never fills the local reference table.
// - A Java object whose "orbID" is 0 (never opened, failed to open, closed)
//   is refused: the entry point returns -1, 0 or null and touches nothing.
#include "orb_java.h"

#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cctype>
#include <string>
#include <vector>

#include "StringConversion.h"

namespace {

// The runtime of the process, for the log callback.  Captured on every open.
std::atomic<JavaVM*> jvm{nullptr};

constexpr const char* kSampleSig =
    "(Lcom/norvanelab/orbapi/Sample;DS[F[F[F[F[F[F[FFFSSSS[SS[F[F[F[F[F[F[F[F[F[F[F[F)V";
constexpr const char* kEventSig =
    "(Lcom/norvanelab/orbapi/Event;ISSSIIFFFFFFFFFFFFFFFFFFFFFFFSSSSSLjava/lang/String;)V";
constexpr const char* kRecordingSig = "(Lcom/norvanelab/orbapi/RecordingInfo;IBBBBBFBBII)V";
constexpr const char* kTrialSig =
    "(Lcom/norvanelab/orbapi/Trial;IILcom/norvanelab/orbapi/RecordingInfo;II)V";
constexpr const char* kOpenFailure = "Could not open ORB File or the ORB File is corrupt";

// Local references one record needs at most (a sample: twenty arrays, the
// class, the target's class), with room to spare.
constexpr jint kRecordFrame = 32;

// Hands one formatted line to the library's log.
template <typename... Args>
void logLine(const char* format, Args... args)
{
    print_log(const_cast<char*>(format), args...);
}

jfieldID orbIdField(JNIEnv* env, jobject self, int site)
{
    jclass cls = env->GetObjectClass(self);
    jfieldID fid = env->GetFieldID(cls, "orbID", "J");
    checkJavaException(env, site);
    env->DeleteLocalRef(cls);
    return fid;
}

// Looks up the static getFilledObject of `cls` and calls it with the
// arguments given; the target is the first of them.
template <typename... Args>
void callFill(JNIEnv* env, jclass cls, const char* signature, int site, Args... args)
{
    jmethodID mid = env->GetStaticMethodID(cls, "getFilledObject", signature);
    if (checkJavaException(env, site) || !mid)
        return;
    env->CallStaticVoidMethod(cls, mid, args...);
    checkJavaException(env, site + 1);
}

jfloatArray newFloatPair(JNIEnv* env, const float* values)
{
    jfloatArray array = env->NewFloatArray(2);
    if (checkJavaException(env, 210) || !array)
        return nullptr;
    env->SetFloatArrayRegion(array, 0, 2, values);
    checkJavaException(env, 211);
    return array;
}

// The text a MESSAGE item hands to Java, cut in the message buffer itself:
// the last stored byte is the terminator's place, at most 139 bytes are
// kept, and one trailing line feed is dropped.  A negative length marks a
// text to pass on as it stands; it is copied (up to the buffer's end) so
// that it is terminated.
const char* trimMessage(ORB_MESSAGE* m, std::string& standing)
{
    int length = m->length;
    if (length < 0) {
        standing.assign(m->text, strnlen(m->text, sizeof m->text));
        return standing.c_str();
    }
    if (length == 0)
        m->text[0] = 0;
    else if (length <= 140)
        m->text[length - 1] = 0;
    else
        m->text[139] = 0;
    if (length >= 2) {
        int i = (length <= 140 ? length : 140) - 2;
        while (i >= 0 && m->text[i] == 0)
            --i;
        if (i >= 0 && m->text[i] == '\n')
            m->text[i] = 0;
    }
    return m->text;
}

// The native object of a Java ORB object that has an open file.
ORBX* openObject(JNIEnv* env, jobject self)
{
    ORBX* o = getORBID(env, self);
    return o && o->handle ? o : nullptr;
}

jobject trialResult(JNIEnv* env, jobject self, int result)
{
    return result == -1 ? nullptr : getCurrentTrialHeaders(env, self);
}

// The reason of the last failed open on this thread, its trailing line
// ends and spaces dropped.
std::string lastError()
{
    std::string reason = orb_get_last_error();
    while (!reason.empty() && std::isspace(static_cast<unsigned char>(reason.back())))
        reason.pop_back();
    return reason;
}

// Throws the OrbException of a failed open: the fixed text, and `reason`.
// A front end without that class gets an IOException with the fixed text.
void throwOpenFailure(JNIEnv* env, const std::string& reason)
{
    jclass cls = env->FindClass("com/norvanelab/orbapi/OrbException");
    jmethodID ctor = nullptr;
    if (!checkJavaException(env, 104) && cls) {
        ctor = env->GetMethodID(cls, "<init>", "(Ljava/lang/String;Ljava/lang/String;)V");
        checkJavaException(env, 105);
    }
    jstring message = ctor ? newJavaString(env, kOpenFailure) : nullptr;
    jstring why = message ? newJavaString(env, reason.c_str()) : nullptr;
    jobject failure = why ? env->NewObject(cls, ctor, message, why) : nullptr;
    if (!checkJavaException(env, 106) && failure) {
        env->Throw(static_cast<jthrowable>(failure));
    } else {
        jclass ioException = env->FindClass("java/io/IOException");
        if (!checkJavaException(env, 107) && ioException) {
            env->ThrowNew(ioException, kOpenFailure);
            env->DeleteLocalRef(ioException);
        }
    }
    for (jobject local : {jobject(cls), jobject(message), jobject(why), failure})
        if (local)
            env->DeleteLocalRef(local);
}

int bookmarkId(JNIEnv* env, jobject mark, int site)
{
    jclass cls = env->GetObjectClass(mark);
    jfieldID fid = env->GetFieldID(cls, "bookmarkID", "I");
    bool failed = checkJavaException(env, site) || !fid;
    jint id = failed ? 0 : env->GetIntField(mark, fid);
    env->DeleteLocalRef(cls);
    return id;
}

} // namespace

// ---------------------------------------------------------------------------
// The native object
// ---------------------------------------------------------------------------

ORB::~ORB() = default;

ORBX::~ORBX()
{
    if (handle)
        orb_close_file(handle);
    // trialStartId and trialEndId go after the file that pointed at them.
}

void ORBX::generateFrameMessageEvent(unsigned int /*time*/) {}

void ORBX::initializeLookupTable(float /*sampleRate*/) {}

// ---------------------------------------------------------------------------
// Shared routines
// ---------------------------------------------------------------------------

bool checkJavaException(JNIEnv* env, int site)
{
    if (!env->ExceptionCheck())
        return false;
    logLine("Exception caught in native code at lint %d\n", site);
    env->ExceptionDescribe();
    env->ExceptionClear();
    return true;
}

ORBX* getORBID(JNIEnv* env, jobject self)
{
    if (!self)
        return nullptr;
    jfieldID fid = orbIdField(env, self, 101);
    if (!fid)
        return nullptr;
    jlong id = env->GetLongField(self, fid);
    return reinterpret_cast<ORBX*>(static_cast<intptr_t>(id));
}

void orbconverter_log(char* text)
{
    JavaVM* vm = jvm.load(std::memory_order_acquire);
    if (!vm || !text)
        return;
    JNIEnv* env = nullptr;
    if (vm->GetEnv(reinterpret_cast<void**>(&env), 0x10001) != JNI_OK || !env)
        return;
    // A line may be logged while an exception is pending (the exception
    // check logs before it describes).  The runtime may not be called then,
    // so the exception is set aside and raised again afterwards.
    jthrowable pending = env->ExceptionOccurred();
    if (pending)
        env->ExceptionClear();
    if (env->PushLocalFrame(8) == 0) {
        jclass cls = env->FindClass("com/norvanelab/orbapi/ORB");
        jmethodID mid = nullptr;
        if (cls && !env->ExceptionCheck())
            mid = env->GetStaticMethodID(cls, "printLog", "(Ljava/lang/String;)V");
        if (mid && !env->ExceptionCheck()) {
            jstring line = newJavaString(env, text);
            if (line && !env->ExceptionCheck())
                env->CallStaticVoidMethod(cls, mid, line);
        }
        // Whatever went wrong here is dropped: logging must not raise.
        if (env->ExceptionCheck())
            env->ExceptionClear();
        env->PopLocalFrame(nullptr);
    } else {
        env->ExceptionClear();
    }
    if (pending) {
        env->Throw(pending);
        env->DeleteLocalRef(pending);
    }
}

jfloatArray getNewFloatArray(JNIEnv* env, const float* values, int count, int copyFirst)
{
    if (count < 0)
        count = 0;
    jfloatArray array = env->NewFloatArray(count);
    if (checkJavaException(env, 212) || !array)
        return nullptr;
    if (copyFirst) {
        std::vector<jfloat> buffer(values, values + count);
        env->SetFloatArrayRegion(array, 0, count, buffer.data());
    } else {
        env->SetFloatArrayRegion(array, 0, count, values);
    }
    checkJavaException(env, 213);
    return array;
}

void newSample(JNIEnv* env, jobject target, FSAMPLE* s)
{
    if (env->PushLocalFrame(kRecordFrame) != 0) {
        checkJavaException(env, 220);
        return;
    }
    jfloatArray fastRawVelY = newFloatPair(env, s->fastRawVelY);
    jfloatArray fastRawVelX = newFloatPair(env, s->fastRawVelX);
    jfloatArray fastSecondVelY = newFloatPair(env, s->fastSecondVelY);
    jfloatArray fastSecondVelX = newFloatPair(env, s->fastSecondVelX);
    jfloatArray fastGazeVelY = newFloatPair(env, s->fastGazeVelY);
    jfloatArray fastGazeVelX = newFloatPair(env, s->fastGazeVelX);
    jfloatArray rawVelY = newFloatPair(env, s->rawVelY);
    jfloatArray rawVelX = newFloatPair(env, s->rawVelX);
    jfloatArray secondVelY = getNewFloatArray(env, s->secondVelY, 2, 0);
    jfloatArray secondVelX = getNewFloatArray(env, s->secondVelX, 2, 0);
    jfloatArray gazeVelY = getNewFloatArray(env, s->gazeVelY, 2, 0);
    jfloatArray gazeVelX = getNewFloatArray(env, s->gazeVelX, 2, 0);

    jshortArray extraData = env->NewShortArray(8);
    if (!checkJavaException(env, 221) && extraData) {
        jshort words[8];
        for (int i = 0; i < 8; ++i)
            words[i] = jshort(s->extraData[i]);
        env->SetShortArrayRegion(extraData, 0, 8, words);
        checkJavaException(env, 222);
    }

    jfloatArray gazeY = getNewFloatArray(env, s->gazeY, 2, 1);
    jfloatArray gazeX = getNewFloatArray(env, s->gazeX, 2, 1);
    jfloatArray pupilSize = newFloatPair(env, s->pupilSize);
    jfloatArray secondY = newFloatPair(env, s->secondY);
    jfloatArray secondX = newFloatPair(env, s->secondX);
    jfloatArray rawY = newFloatPair(env, s->rawY);
    jfloatArray rawX = newFloatPair(env, s->rawX);

    jdouble time = jdouble(s->time) + ((s->flags & ORB_SAMPLE_HALF_MS) ? 0.5 : 0.0);
    jclass cls = env->GetObjectClass(target);
    callFill(env, cls, kSampleSig, 223, target, time, jint(jshort(s->flags)), rawX, rawY, secondX,
             secondY, pupilSize, gazeX, gazeY, jdouble(s->resolutionX), jdouble(s->resolutionY),
             jint(0), jint(jshort(s->input)), jint(jshort(s->buttons)), jint(s->extraType),
             extraData, jint(jshort(s->status)), gazeVelX, gazeVelY, secondVelX, secondVelY,
             rawVelX, rawVelY, fastGazeVelX, fastGazeVelY, fastSecondVelX, fastSecondVelY,
             fastRawVelX, fastRawVelY);
    env->PopLocalFrame(nullptr);
}

void newEvent(JNIEnv* env, jobject target, FEVENT* e, int expectedType)
{
    if (e->type != expectedType) {
        logLine("Types not matched \n");
        std::fflush(nullptr);
    }
    std::string standing;
    const char* text = e->message ? trimMessage(e->message, standing) : "";

    if (env->PushLocalFrame(kRecordFrame) != 0) {
        checkJavaException(env, 230);
        return;
    }
    jstring message = GetJStringFromWideString(env, text);
    jclass cls = env->GetObjectClass(target);
    callFill(env, cls, kEventSig, 231, target, jint(e->time), jint(jshort(e->type)),
             jint(jshort(e->contents)), jint(e->eye), jint(e->startTime), jint(e->endTime),
             jdouble(e->startPosX), jdouble(e->startPosY), jdouble(e->startGazeX),
             jdouble(e->startGazeY), jdouble(e->startScalar), jdouble(e->endPosX),
             jdouble(e->endPosY), jdouble(e->endGazeX), jdouble(e->endGazeY),
             jdouble(e->endScalar), jdouble(e->avgPosX), jdouble(e->avgPosY),
             jdouble(e->avgGazeX), jdouble(e->avgGazeY), jdouble(e->avgScalar),
             jdouble(e->avgPupil), jdouble(e->peakPupil), jdouble(e->startPupil),
             jdouble(e->endPupil), jdouble(e->startResX), jdouble(e->endResX),
             jdouble(e->startResY), jdouble(e->endResY), jint(jshort(e->aux0)),
             jint(jshort(e->blockFlags)), jint(jshort(e->blockFlags2)),
             jint(jshort(e->blockOption)), jint(jshort(e->itemTag)), message);
    env->PopLocalFrame(nullptr);
}

void newRecording(JNIEnv* env, jobject target, const Recording* r)
{
    if (env->PushLocalFrame(kRecordFrame) != 0) {
        checkJavaException(env, 240);
        return;
    }
    jclass cls = env->GetObjectClass(target);
    // The sample-block flags go before the event-block flags.
    callFill(env, cls, kRecordingSig, 241, target, jint(r->time), jint(jbyte(r->state)),
             jint(jbyte(r->recordType)), jint(jbyte(r->filterFlag)), jint(jbyte(r->modeFlag)),
             jint(jbyte(r->modeLevel)), jdouble(r->sampleRate), jint(jbyte(r->blockOption2)),
             jint(jbyte(r->eyes)), jint(r->sampleFlags), jint(r->eventFlags));
    env->PopLocalFrame(nullptr);
}

jobject getCurrentTrialHeaders(JNIEnv* env, jobject self)
{
    ORBX* o = openObject(env, self);
    if (!o)
        return nullptr;
    TRIAL header;
    uint32_t startIndex = 0, endIndex = 0;
    if (orb_get_trial_header(o->handle, &header) != 0 ||
        orb_get_trial_span(o->handle, &startIndex, &endIndex) != 0)
        return nullptr;
    const TRIAL* trial = &header;
    if (env->PushLocalFrame(kRecordFrame) != 0) {
        checkJavaException(env, 400);
        return nullptr;
    }
    jclass cls = env->GetObjectClass(self);
    jfieldID trialField = env->GetFieldID(cls, "trialObject", "Lcom/norvanelab/orbapi/Trial;");
    checkJavaException(env, 401);
    jfieldID recordingField =
        env->GetFieldID(cls, "recordingObject", "Lcom/norvanelab/orbapi/RecordingInfo;");
    checkJavaException(env, 402);
    jobject trialObject = trialField ? env->GetObjectField(self, trialField) : nullptr;
    jobject recordingObject = recordingField ? env->GetObjectField(self, recordingField) : nullptr;

    if (recordingObject && trial->rec)
        newRecording(env, recordingObject, trial->rec);
    if (trialObject) {
        jclass trialClass = env->FindClass("com/norvanelab/orbapi/Trial");
        if (!checkJavaException(env, 403) && trialClass)
            callFill(env, trialClass, kTrialSig, 404, trialObject, jint(trial->startTime),
                     jint(trial->endTime), recordingObject, jint(startIndex), jint(endIndex));
    }
    return env->PopLocalFrame(trialObject);
}

// ---------------------------------------------------------------------------
// Entry points of com.norvanelab.orbapi.ORB
// ---------------------------------------------------------------------------

extern "C" {

JNIEXPORT jint JNICALL Java_com_norvanelab_orbapi_ORB_getORBFile(JNIEnv* env, jobject self,
                                                                 jstring path, jint consistency,
                                                                 jboolean loadEvents,
                                                                 jboolean loadSamples, jint mode)
{
    orb_set_log_function(orbconverter_log);
    JavaVM* vm = nullptr;
    if (env->GetJavaVM(&vm) == JNI_OK)
        jvm.store(vm, std::memory_order_release);

    ORBX* o = nullptr;
    std::string reason = "no path was given";
    if (path) {
        reason = "the path could not be read";
        const char* chars = env->GetStringUTFChars(path, nullptr);
        if (!checkJavaException(env, 102) && chars) {
            size_t length = std::strlen(chars);
            std::vector<char> copy(length + 10, 0);
            std::memcpy(copy.data(), chars, length);
            env->ReleaseStringUTFChars(path, chars);

            o = new ORBX;
            int error = 0;
            o->handle = orb_open_file(copy.data(), consistency, loadEvents ? 1 : 0,
                                      loadSamples ? 1 : 0, &error);
            std::strncpy(o->fileName, copy.data(), sizeof o->fileName - 1);
            o->frameMessages = (mode == 1 || mode == 3) ? 1 : 0;
            o->frameLookup = (mode == 2 || mode == 3) ? 1 : 0;
            if (error < 0 || !o->handle) {
                reason = lastError();
                delete o;
                o = nullptr;
            }
        }
    }

    jfieldID fid = o ? orbIdField(env, self, 103) : nullptr;
    if (!fid) {
        if (o)
            reason = "the object has no field orbID to keep the file in";
        delete o; // a front end without the field cannot keep the file
        throwOpenFailure(env, reason);
        return -1;
    }
    // A file opened before on the same object is closed: the field is the
    // only way back to it.
    ORBX* previous = reinterpret_cast<ORBX*>(static_cast<intptr_t>(env->GetLongField(self, fid)));
    env->SetLongField(self, fid, static_cast<jlong>(reinterpret_cast<intptr_t>(o)));
    delete previous;
    return 0;
}

JNIEXPORT void JNICALL Java_com_norvanelab_orbapi_ORB_closeORBFile(JNIEnv* env, jobject self)
{
    logLine("releasing orb memory \n");
    jfieldID fid = orbIdField(env, self, 110);
    if (!fid)
        return;
    ORBX* o = reinterpret_cast<ORBX*>(static_cast<intptr_t>(env->GetLongField(self, fid)));
    if (!o)
        return;
    env->SetLongField(self, fid, 0);
    delete o;
}

JNIEXPORT jint JNICALL Java_com_norvanelab_orbapi_ORB_getTrialCount(JNIEnv* env, jobject self)
{
    ORBX* o = openObject(env, self);
    return o ? orb_get_trial_count(o->handle) : 0;
}

JNIEXPORT jint JNICALL Java_com_norvanelab_orbapi_ORB_setTrialIdentifiers(JNIEnv* env,
                                                                          jobject self,
                                                                          jstring start,
                                                                          jstring end)
{
    ORBX* o = openObject(env, self);
    if (!o)
        return -1;
    auto convert = [&](jstring s) {
        std::unique_ptr<char[]> text(GetWideStringFromJString(env, s));
        if (text && text[0] == 0)
            text.reset(); // an empty identifier is no identifier
        return text;
    };
    std::unique_ptr<char[]> startId = convert(start);
    std::unique_ptr<char[]> endId = convert(end);
    orb_set_trial_identifier(o->handle, startId.get(), endId.get());
    // The file now points at the new texts; the old ones can go.
    o->trialStartId = std::move(startId);
    o->trialEndId = std::move(endId);
    return 0;
}

JNIEXPORT jint JNICALL Java_com_norvanelab_orbapi_ORB_getRevision(JNIEnv* env, jobject self)
{
    ORBX* o = openObject(env, self);
    return o ? orb_get_revision(o->handle) : 0;
}

JNIEXPORT jstring JNICALL Java_com_norvanelab_orbapi_ORB_getPreambleText(JNIEnv* env,
                                                                        jobject self)
{
    ORBX* o = openObject(env, self);
    if (!o)
        return nullptr;
    int length = orb_get_preamble_text_length(o->handle);
    if (length < 1)
        return GetJStringFromWideString(env, "");
    std::vector<char> buffer(size_t(length) + 1, 0);
    orb_get_preamble_text(o->handle, buffer.data(), length);
    return GetJStringFromWideString(env, buffer.data());
}

JNIEXPORT jint JNICALL Java_com_norvanelab_orbapi_ORB_peakItemIndex(JNIEnv* env, jobject self)
{
    ORBX* o = openObject(env, self);
    return o ? orb_get_element_index(o->handle) : -1;
}

JNIEXPORT jint JNICALL Java_com_norvanelab_orbapi_ORB_getItemCount(JNIEnv* env, jobject self)
{
    ORBX* o = openObject(env, self);
    return o ? orb_get_element_count(o->handle) : 0;
}

JNIEXPORT jint JNICALL Java_com_norvanelab_orbapi_ORB_getNextData0(JNIEnv* env, jobject self)
{
    ORBX* o = openObject(env, self);
    if (!o)
        return NO_MORE_ITEMS;
    if (!o->pendingMessage)
        return orb_get_next_data(o->handle);

    // A message produced by a hook is delivered before the first item that
    // lies after it.  Its time (ms) is set against the item's ordering key
    // (half-milliseconds) as the front ends have always compared them.
    uint64_t next = 0;
    if (orb_get_element_code(o->handle, orb_get_element_index(o->handle), &next) >= 0) {
        uint32_t key = uint32_t(next);
        if (o->pendingMessage->startTime > key)
            return orb_get_next_data(o->handle);
    }
    if (!o->pendingDone) {
        o->pendingReady = 1;
        return MESSAGE;
    }
    o->pendingMessage = nullptr;
    o->pendingReady = 0;
    o->pendingDone = 1;
    return orb_get_next_data(o->handle);
}

JNIEXPORT void JNICALL Java_com_norvanelab_orbapi_ORB_getFloatData(JNIEnv* env, jobject self,
                                                                  jobject target, jint type)
{
    ORBX* o = openObject(env, self);
    if (!o || !target)
        return;
    if (ORB_IS_EVENT_CODE(type)) {
        if (type == MESSAGE && o->pendingReady && o->pendingMessage) {
            newEvent(env, target, o->pendingMessage, MESSAGE);
            o->pendingDone = 1;
            o->generateFrameMessageEvent(o->pendingMessage->startTime);
            return;
        }
        ALLF_DATA* d = orb_get_float_data(o->handle);
        if (!d)
            return;
        // The record may be of another kind when the type asked for is not
        // the item's; only an event's record has a message pointer.
        FEVENT event = d->fe;
        const int read = orb_get_element_code(o->handle, orb_get_element_index(o->handle) - 1, nullptr);
        if (!ORB_IS_EVENT_CODE(read))
            event.message = nullptr;
        newEvent(env, target, &event, type);
    } else if (type == RECORDING) {
        ALLF_DATA* d = orb_get_float_data(o->handle);
        if (!d)
            return;
        if (o->frameLookup && d->rec.state == 1)
            o->initializeLookupTable(d->rec.sampleRate);
        else
            ++o->blockCounter;
        newRecording(env, target, &d->rec);
    } else if (type == SAMPLE) {
        ALLF_DATA* d = orb_get_float_data(o->handle);
        if (!d)
            return;
        o->generateFrameMessageEvent(d->fs.time);
        newSample(env, target, &d->fs);
    }
    // Any other code has no record: the target is left as it is.
}

JNIEXPORT jint JNICALL Java_com_norvanelab_orbapi_ORB_gotoIndex(JNIEnv* env, jobject self,
                                                               jint position)
{
    ORBX* o = openObject(env, self);
    if (!o)
        return -1;
    orb_goto_index(o->handle, position); // a position out of range changes nothing
    return orb_get_element_count(o->handle);
}

JNIEXPORT jint JNICALL Java_com_norvanelab_orbapi_ORB_gotoPreviousBookmark(JNIEnv* env,
                                                                          jobject self)
{
    ORBX* o = openObject(env, self);
    return o ? orb_goto_previous_bookmark(o->handle) : -1;
}

JNIEXPORT jint JNICALL Java_com_norvanelab_orbapi_ORB_gotoNextBookmark(JNIEnv* env, jobject self)
{
    ORBX* o = openObject(env, self);
    return o ? orb_goto_next_bookmark(o->handle) : -1;
}

JNIEXPORT jint JNICALL Java_com_norvanelab_orbapi_ORB_gotoBookmark(JNIEnv* env, jobject self,
                                                                  jobject mark)
{
    ORBX* o = openObject(env, self);
    if (!o || !mark)
        return -1;
    BOOKMARK bm{uint32_t(bookmarkId(env, mark, 500))};
    return orb_goto_bookmark(o->handle, &bm);
}

JNIEXPORT jint JNICALL Java_com_norvanelab_orbapi_ORB_freeBookmark(JNIEnv* env, jobject self,
                                                                  jobject mark)
{
    ORBX* o = openObject(env, self);
    if (!o || !mark)
        return -1;
    // The file keeps bookmark ids by value, so the record can live here.
    BOOKMARK bm{uint32_t(bookmarkId(env, mark, 501))};
    return orb_free_bookmark(o->handle, &bm);
}

JNIEXPORT jobject JNICALL Java_com_norvanelab_orbapi_ORB_setBookmark(JNIEnv* env, jobject self)
{
    ORBX* o = openObject(env, self);
    if (!o)
        return nullptr;
    // When the position is already bookmarked, or every item has been
    // handed out, nothing is written and the BookMark carries 0.
    BOOKMARK bm{0};
    orb_set_bookmark(o->handle, &bm);
    jclass cls = env->FindClass("com/norvanelab/orbapi/BookMark");
    if (checkJavaException(env, 502) || !cls)
        return nullptr;
    jobject mark = nullptr;
    jmethodID ctor = env->GetMethodID(cls, "<init>", "(I)V");
    if (!checkJavaException(env, 503) && ctor) {
        mark = env->NewObject(cls, ctor, jint(bm.id));
        checkJavaException(env, 504);
    }
    env->DeleteLocalRef(cls);
    return mark;
}

JNIEXPORT jobject JNICALL Java_com_norvanelab_orbapi_ORB_jumpToTrial(JNIEnv* env, jobject self,
                                                                    jint trial)
{
    ORBX* o = openObject(env, self);
    if (!o)
        return nullptr;
    o->pendingMessage = nullptr;
    o->pendingReady = 0;
    o->pendingDone = 1;
    int result = orb_jump_to_trial(o->handle, trial);
    if (result == -1)
        return nullptr;
    o->blockCounter = uint32_t(trial);
    return getCurrentTrialHeaders(env, self);
}

JNIEXPORT jobject JNICALL Java_com_norvanelab_orbapi_ORB_gotoTrialWithEndTime(JNIEnv* env,
                                                                             jobject self,
                                                                             jint time)
{
    ORBX* o = openObject(env, self);
    return o ? trialResult(env, self, orb_goto_trial_with_end_time(o->handle, unsigned(time)))
             : nullptr;
}

JNIEXPORT jobject JNICALL Java_com_norvanelab_orbapi_ORB_gotoTrialWithStartTime(JNIEnv* env,
                                                                               jobject self,
                                                                               jint time)
{
    ORBX* o = openObject(env, self);
    return o ? trialResult(env, self, orb_goto_trial_with_start_time(o->handle, unsigned(time)))
             : nullptr;
}

JNIEXPORT jobject JNICALL Java_com_norvanelab_orbapi_ORB_gotoNextTrial(JNIEnv* env, jobject self)
{
    ORBX* o = openObject(env, self);
    return o ? trialResult(env, self, orb_goto_next_trial(o->handle)) : nullptr;
}

JNIEXPORT jobject JNICALL Java_com_norvanelab_orbapi_ORB_gotoPreviousTrial(JNIEnv* env,
                                                                          jobject self)
{
    ORBX* o = openObject(env, self);
    return o ? trialResult(env, self, orb_goto_previous_trial(o->handle)) : nullptr;
}

// ---------------------------------------------------------------------------
// Entry point of com.norvanelab.orbapi.DefaultOptionAdapter
// ---------------------------------------------------------------------------

// One number for a tab-separated text column: fixed with `precision`
// decimals, or in exponent form once the value is too wide for the column.
JNIEXPORT jstring JNICALL Java_com_norvanelab_orbapi_DefaultOptionAdapter_getFloatValue0(
    JNIEnv* env, jobject /*self*/, jfloat value, jint precision)
{
    char buffer[50];
    double v = value;
    if (precision == 0) {
        std::snprintf(buffer, sizeof buffer, "\t%7.0f", v);
    } else if (precision > 0) {
        double limit = precision == 1 ? 100000.0 : precision == 2 ? 10000.0 : 1000.0;
        if (!(std::fabs(v) >= limit)) // below the limit, or not a number
            std::snprintf(buffer, sizeof buffer, "\t%7.*f", int(precision), v);
        else
            std::snprintf(buffer, sizeof buffer, "\t %7.1e", v);
    } else {
        // A negative precision leaves the digits to the formatter (six).
        std::snprintf(buffer, sizeof buffer, "\t%7.*f", int(precision), v);
    }
    jstring result = env->NewStringUTF(buffer);
    checkJavaException(env, 600);
    return result;
}

} // extern "C"
