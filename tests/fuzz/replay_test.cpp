// Every input of the corpora once more, without libFuzzer.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/fuzz/fuzz.h"
#include "tests/world/world.h"

TEST(Fuzz, EveryCorpusInputPasses) {
    size_t count = 0;
    for (const auto& file : std::filesystem::recursive_directory_iterator(ORSM_SOURCE_FOLDER "/tests/fuzz/corpus")) {
        if (file.is_directory()) continue;
        fprintf(stderr, "%s\n", file.path().c_str());  // the last name printed is the input that failed
        setenv("ORSM_FUZZ_TARGET", file.path().parent_path().filename().c_str(), 1);
        LLVMFuzzerInitialize(nullptr, nullptr);
        const std::string bytes = world::readFile(file.path());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
        ++count;
    }
    printf("figure: fuzz: %zu inputs replayed\n", count);
}
