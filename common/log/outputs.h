// What the files of the log share: the line, and the way to the outputs.
#pragma once

#include <cstddef>

/// The line under construction: at most KLineRoom bytes of text, then the newline in the place of the zero byte.
constexpr size_t KLineRoom = 7999;
struct Line {
    char text[KLineRoom + 1];
    size_t length;
    size_t levelName;  // where the level name begins
};

/// Ends the line and writes it to every output that is switched on. Needs the log's lock; waits for a slow reader.
void writeToOutputs(int level, Line& line);
