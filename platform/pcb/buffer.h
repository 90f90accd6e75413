// Pieces of texts and growing byte buffers, without the C++ runtime library.
#pragma once

#include <cstddef>
#include <string_view>

#include "common/text/text.h"

/// A copy of `text` that need not be zero-terminated; null when out of memory. Any thread.
[[nodiscard]] OwnedText copyPiece(std::string_view text);

/// Bytes that grow at the end and are taken from the front.
struct Buffer {
    OwnedText bytes;
    size_t start = 0;  // of what was not taken yet
    size_t length = 0;
    size_t capacity = 0;

    std::string_view content() const { return {bytes.get() + start, length}; }
};

/// Makes room for `more` bytes after the content; false, and nothing changed, when out of memory.
[[nodiscard]] bool bufferReserve(Buffer* buffer, size_t more);
/// False, and nothing added, when out of memory.
[[nodiscard]] bool bufferAppend(Buffer* buffer, std::string_view bytes);
/// Takes `count` bytes from the front; there are at least so many.
void bufferTake(Buffer* buffer, size_t count);
