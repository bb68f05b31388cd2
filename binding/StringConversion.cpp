#include "StringConversion.h"

#include <cstring>

#include "orb_java.h"

namespace {

// Length of the well-formed UTF-8 sequence at s (1 to 4 bytes), or 0 when
// the bytes there are not one (stray continuation byte, overlong form,
// encoded surrogate, beyond U+10FFFF, cut short).  s[0] is at least 0x80.
size_t utf8SequenceLength(const unsigned char* s)
{
    unsigned char c = s[0];
    auto cont = [](unsigned char b) { return (b & 0xC0) == 0x80; };
    if (c >= 0xC2 && c <= 0xDF)
        return cont(s[1]) ? 2 : 0;
    if (c >= 0xE0 && c <= 0xEF) {
        if (!cont(s[1]) || !cont(s[2]))
            return 0;
        if (c == 0xE0 && s[1] < 0xA0)
            return 0; // overlong
        if (c == 0xED && s[1] >= 0xA0)
            return 0; // surrogate
        return 3;
    }
    if (c >= 0xF0 && c <= 0xF4) {
        if (!cont(s[1]) || !cont(s[2]) || !cont(s[3]))
            return 0;
        if (c == 0xF0 && s[1] < 0x90)
            return 0; // overlong
        if (c == 0xF4 && s[1] >= 0x90)
            return 0; // beyond U+10FFFF
        return 4;
    }
    return 0;
}

void appendThreeByte(std::string& out, unsigned unit)
{
    out.push_back(char(0xE0 | (unit >> 12)));
    out.push_back(char(0x80 | ((unit >> 6) & 0x3F)));
    out.push_back(char(0x80 | (unit & 0x3F)));
}

bool isAscii(const char* text)
{
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p)
        if (*p >= 0x80)
            return false;
    return true;
}

} // namespace

std::string toModifiedUtf8(const char* text)
{
    std::string out;
    if (!text)
        return out;
    const unsigned char* s = reinterpret_cast<const unsigned char*>(text);
    out.reserve(std::strlen(text));
    while (*s) {
        if (*s < 0x80) {
            out.push_back(char(*s++));
            continue;
        }
        size_t n = utf8SequenceLength(s); // never reads past the terminator:
                                          // it stops at the first non-continuation byte
        if (n == 2 || n == 3) {
            out.append(reinterpret_cast<const char*>(s), n);
        } else if (n == 4) {
            unsigned cp = ((s[0] & 0x07u) << 18) | ((s[1] & 0x3Fu) << 12) | ((s[2] & 0x3Fu) << 6) |
                          (s[3] & 0x3Fu);
            cp -= 0x10000;
            appendThreeByte(out, 0xD800 | (cp >> 10));
            appendThreeByte(out, 0xDC00 | (cp & 0x3FF));
        } else {
            // A byte outside any sequence: a Latin-1 character.
            out.push_back(char(0xC0 | (*s >> 6)));
            out.push_back(char(0x80 | (*s & 0x3F)));
            n = 1;
        }
        s += n;
    }
    return out;
}

jstring newJavaString(JNIEnv* env, const char* text)
{
    if (!text)
        text = "";
    if (isAscii(text))
        return env->NewStringUTF(text);
    std::string converted = toModifiedUtf8(text);
    return env->NewStringUTF(converted.c_str());
}

jstring GetJStringFromWideString(JNIEnv* env, const char* text)
{
    jstring result = newJavaString(env, text);
    checkJavaException(env, 301);
    return result;
}

char* GetWideStringFromJString(JNIEnv* env, jstring str)
{
    if (!str)
        return nullptr;
    const char* chars = env->GetStringUTFChars(str, nullptr);
    if (checkJavaException(env, 302) || !chars)
        return nullptr;
    // Modified UTF-8 has no zero byte inside the text.
    size_t length = std::strlen(chars);
    char* copy = new char[length + 1];
    std::memcpy(copy, chars, length + 1);
    env->ReleaseStringUTFChars(str, chars);
    return copy;
}
