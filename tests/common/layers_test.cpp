// The rule of who may include whom, as the file "layers" states it.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

TEST(Layers, EveryIncludeIsAllowedAndNoneClosesACircle) {
    std::filesystem::current_path(ORSM_SOURCE_FOLDER);
    std::map<std::string, std::set<std::string>> layers;  // of each module what it may include, itself among it
    std::ifstream rules("layers");
    for (std::string line, allowed; std::getline(rules, line);) {
        if (line.starts_with('#')) continue;
        const std::string module = line.substr(0, line.find(':'));
        std::istringstream words(line.substr(module.size() + 1));
        for (; words >> allowed; layers[module].insert(allowed)) {
            EXPECT_TRUE(layers.contains(allowed)) << line << ": " << allowed << " does not stand above";
        }
        layers[module].insert(module);
    }
    // The longest name that is a prefix of the path and ends where a name may end; the longer of two comes later.
    const auto moduleOf = [&](const std::string& path) {
        std::string best;
        for (const auto& [module, all] : layers) {
            if (path.starts_with(module) && strchr("/.", path[module.size()])) best = module;
        }
        return best;
    };
    for (const char* folder : {"common", "pcblib", "platform", "src", "simulator"}) {
        for (const std::filesystem::path& path : std::filesystem::recursive_directory_iterator(folder)) {
            if (path.extension() != ".h" && path.extension() != ".cpp") continue;
            const std::string module = moduleOf(path);
            ASSERT_NE(module, "") << path << " belongs to no module";
            std::ifstream file(path);
            for (std::string line; std::getline(file, line);) {
                if (!line.starts_with("#include \"")) continue;
                const std::string included = moduleOf(line.substr(10, line.rfind('"') - 10));
                EXPECT_TRUE(layers[module].contains(included)) << path << ": " << line;
            }
        }
    }
}
