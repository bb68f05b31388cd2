#include "ORBException.h"

#include <cstdarg>
#include <cstdio>

ORBException::ORBException(const char* format, ...)
{
    text[0] = '\0';
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
}
