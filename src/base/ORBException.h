// The library's one exception: a short formatted text.
#ifndef ORBAPI_ORBEXCEPTION_H
#define ORBAPI_ORBEXCEPTION_H

class ORBException {
public:
    // Formats the text printf style; it is cut at 1023 characters.
    explicit ORBException(const char* format, ...)
        __attribute__((format(printf, 2, 3)));

    const char* what() const { return text; }

private:
    char text[1024];
};

#endif
