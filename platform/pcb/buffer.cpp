#include "platform/pcb/buffer.h"

#include <cstring>

OwnedText copyPiece(std::string_view text) {
    OwnedText copy(static_cast<char*>(malloc(text.size() + 1)));
    if (!copy) return nullptr;
    if (!text.empty()) memcpy(copy.get(), text.data(), text.size());
    copy.get()[text.size()] = '\0';
    return copy;
}

bool bufferReserve(Buffer* buffer, size_t more) {
    if (buffer->capacity - buffer->start - buffer->length >= more) return true;
    // Moved to the front only where that frees half of the memory: else a long queue would be moved again and again.
    if (buffer->start >= buffer->capacity / 2 && buffer->capacity - buffer->length >= more) {
        memmove(buffer->bytes.get(), buffer->bytes.get() + buffer->start, buffer->length);
        buffer->start = 0;
        return true;
    }
    const size_t used = buffer->start + buffer->length;
    size_t capacity = buffer->capacity ? buffer->capacity : 4096;
    while (capacity - used < more) {
        capacity *= 2;
    }
    auto* grown = static_cast<char*>(realloc(buffer->bytes.get(), capacity));
    if (!grown) return false;
    (void)buffer->bytes.release();  // realloc has taken it over
    buffer->bytes.reset(grown);
    buffer->capacity = capacity;
    return true;
}

bool bufferAppend(Buffer* buffer, std::string_view bytes) {
    if (!bufferReserve(buffer, bytes.size())) return false;
    if (bytes.empty()) return true;
    memcpy(buffer->bytes.get() + buffer->start + buffer->length, bytes.data(), bytes.size());
    buffer->length += bytes.size();
    return true;
}

void bufferTake(Buffer* buffer, size_t count) {
    buffer->start += count;
    buffer->length -= count;
    if (buffer->length) return;
    buffer->start = 0;
    // One large frame must not keep its memory for good.
    if (buffer->capacity <= size_t{256} * 1024) return;
    buffer->bytes.reset();
    buffer->capacity = 0;
}
