// Owners: how everything that has to be released is held, so that no path forgets it.
#pragma once

#include <cstdlib>
#include <memory>
#include <new>

/// Calls `release` for what its owner held last.
template <auto release>
struct Release {
    template <class T>
    void operator()(T* held) const {
        release(held);
    }
};

/// Holds a T, or nothing, and hands it to the function `release` at the end, such as `Owned<cJSON, cJSON_Delete>`.
template <class T, auto release>
using Owned = std::unique_ptr<T, Release<release>>;

/// Destroys and frees a record that newRecord made (not null). Any thread.
template <class T>
void deleteRecord(T* record) {
    record->~T();
    free(record);
}

template <class T>
using OwnedRecord = Owned<T, deleteRecord<T>>;

/// A new T with its default values, without the C++ runtime library; null when out of memory. Any thread.
template <class T>
[[nodiscard]] OwnedRecord<T> newRecord() {
    void* memory = malloc(sizeof(T));
    return OwnedRecord<T>(memory ? new (memory) T{} : nullptr);
}
