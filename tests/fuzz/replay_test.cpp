// Every input of the corpora once more, without libFuzzer.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>

#include "tests/world/world.h"

extern "C" int LLVMFuzzerInitialize(int*, char***);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size);

TEST(Fuzz, EveryInputOfTheCorporaPasses) {
    size_t count = 0;
    for (const auto& folder : std::filesystem::directory_iterator(ORSM_SOURCE_FOLDER "/tests/fuzz/corpus")) {
        setenv("FUZZ_TARGET", folder.path().filename().c_str(), 1);
        LLVMFuzzerInitialize(nullptr, nullptr);
        for (const auto& file : std::filesystem::directory_iterator(folder)) {
            fprintf(stderr, "%s\n", file.path().c_str());  // the last one of a run that fails is the one
            const std::string bytes = world::readFile(file.path());
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            ++count;
        }
    }
    printf("figure: fuzz: %zu inputs replayed\n", count);
}
