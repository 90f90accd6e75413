#include "common/text/text.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

OwnedText formatText(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char* text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    return OwnedText(length < 0 ? nullptr : text);
}

OwnedText copyText(const char* text) { return OwnedText(strdup(text)); }

bool duplicateStringOrNull(const char* text, OwnedText* copy) {
    copy->reset(text ? strdup(text) : nullptr);
    return !text || *copy;
}

int bool_text_value_to_int(const char* text) { return strcmp(text, "true") == 0 || strcmp(text, "yes") == 0; }

bool isDataModelTrue(const char* text) { return text && (strcmp(text, "true") == 0 || strcmp(text, "1") == 0); }
