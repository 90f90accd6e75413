// Every input of the corpora once more, without libFuzzer; and then with each allocation of it failing in its turn.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/fuzz/fuzz.h"
#include "tests/world/world.h"

TEST(Fuzz, EveryCorpusInputPassesAlsoOutOfMemory) {
    size_t count = 0, failures = 0;
    for (const auto& file : std::filesystem::recursive_directory_iterator(ORSM_SOURCE_FOLDER "/tests/fuzz/corpus")) {
        if (file.is_directory()) continue;
        fprintf(stderr, "%s\n", file.path().c_str());  // the last name printed is the input that failed
        setenv("ORSM_FUZZ_TARGET", file.path().parent_path().filename().c_str(), 1);
        LLVMFuzzerInitialize(nullptr, nullptr);
        const std::string bytes = world::readFile(file.path());
        for (const char* module : {"", "libcjson"}) {
            for (int number = -1; number < 1 || iShortage.failed; ++number) {
                iShortage = {module, number, false};
                LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
                iShortage.module = nullptr;
                failures += iShortage.failed;
            }
        }
        ++count;
    }
    printf("figure: fuzz: %zu inputs replayed, %zu allocations failed\n", count, failures);
}
