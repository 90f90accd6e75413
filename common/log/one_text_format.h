// A log format that is kept in a table. It is checked at compile time, since the logging call cannot check it.
#pragma once

#include "common/log/log.h"

/// Not defined and not a constant expression: a bad format calls it, and does not compile.
void aTablesFormatHasExactlyOneTextConversion();

/// A format with exactly one conversion, "%s". Anything else does not compile.
struct OneTextFormat {
    const char* text = nullptr;  // null only for a row that logs nothing

    consteval OneTextFormat() = default;
    consteval OneTextFormat(const char* format) : text(format) {
        int conversions = 0;
        for (const char* c = format; *c; ++c) {
            if (*c != '%') continue;
            ++c;
            if (*c != 's') aTablesFormatHasExactlyOneTextConversion();
            ++conversions;
        }
        if (conversions != 1) aTablesFormatHasExactlyOneTextConversion();
    }
};

/// Logs `value` (null is rendered as an empty text) with a table's format, otherwise as LOG_AT.
#define LOG_TEXT(level, format, value) logLine(KLogCategory, level, KLogModule, __LINE__, (format).text, value)
