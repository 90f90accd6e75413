// The fuzz targets: each takes the bytes of one input and ends the process where the program breaks a promise.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerInitialize(int*, char***);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size);

using Target = void(std::string_view bytes);
Target fuzzConfiguration, fuzzCalls, fuzzAnswers;

/// The allocation that fails: of a module (empty: the program itself; null: none fails), after so many others (-1:
/// none).
extern struct Shortage {
    const char* module;
    int left;
    bool failed;
} iShortage;

/// Ends the process, which is a finding, unless `holds`.
inline void require(bool holds) {
    if (!holds) abort();
}

/// Takes the first line off a text; its line break goes with it.
inline std::string takeLine(std::string_view* text) {
    const std::string line(text->substr(0, text->find('\n')));
    text->remove_prefix(std::min(line.size() + 1, text->size()));
    return line;
}
