// Text between the library and the Java front end.
//
// The runtime takes and gives "modified UTF-8": standard UTF-8 except that
// characters outside the basic plane travel as two encoded surrogates, and a
// NUL would be two bytes.  Recordings are written in UTF-8 or in a single-byte
// code page, and a message can hold any bytes at all, so text from a file is
// made valid before it reaches the runtime: well-formed UTF-8 sequences are
// kept as characters, and every byte that is not part of one is taken as a
// Latin-1 character.  Plain ASCII passes through unchanged.
#ifndef ORBAPI_STRINGCONVERSION_H
#define ORBAPI_STRINGCONVERSION_H

#include <jni.h>

#include <string>

// The modified UTF-8 form of a NUL-terminated byte string (rules above).
std::string toModifiedUtf8(const char* text);

// A new String from `text` without looking at the runtime's exception state
// afterwards.  The log callback uses it, where a check of its own would log
// again.  Null text gives an empty String.
jstring newJavaString(JNIEnv* env, const char* text);

// A new String from the bytes of `text`: UTF-8 and single-byte recordings
// go through the same rules.  Null on failure, with the failure logged.
jstring GetJStringFromWideString(JNIEnv* env, const char* text);

// A new char[] (free with delete[]) holding the modified UTF-8 characters of
// `str`, or null when `str` is null or its characters cannot be had.  The
// runtime's own copy of the characters is released before returning.
char* GetWideStringFromJString(JNIEnv* env, jstring str);

#endif
