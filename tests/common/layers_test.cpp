// The rule of who may include whom, as the file "layers" states it.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "tests/world/world.h"

using Layers = std::map<std::string, std::set<std::string>>;

// No circle: a module names only those above it.
static Layers readLayers() {
    Layers layers;
    std::istringstream file(world::readFile(ORSM_SOURCE_FOLDER "/layers"));
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with('#')) continue;
        const size_t colon = line.find(':');
        std::istringstream allowed(line.substr(colon + 1));
        std::set<std::string> modules;
        for (std::string module; allowed >> module; modules.insert(module)) {
            EXPECT_TRUE(layers.contains(module)) << line << ": " << module << " does not stand above";
        }
        layers[line.substr(0, colon)] = modules;
    }
    return layers;
}

// The module that a path belongs to: the longest name that is a prefix of it and ends where a name may end.
static std::string moduleOf(const Layers& layers, const std::string& path) {
    std::string best;
    for (const auto& [module, allowed] : layers) {  // the longer of two prefixes comes later
        if (path.starts_with(module) && strchr("/.", path[module.size()])) best = module;
    }
    return best;
}

TEST(Layers, EveryIncludeIsAllowedAndNoneClosesACircle) {
    const Layers layers = readLayers();
    for (const char* folder : {"common", "pcblib", "platform", "src", "simulator"}) {
        for (const auto& entry :
             std::filesystem::recursive_directory_iterator(std::string(ORSM_SOURCE_FOLDER "/") + folder)) {
            if (entry.path().extension() != ".h" && entry.path().extension() != ".cpp") continue;
            const std::string path = entry.path().string().substr(strlen(ORSM_SOURCE_FOLDER) + 1);
            const std::string module = moduleOf(layers, path);
            ASSERT_NE(module, "") << path << " belongs to no module";
            std::ifstream file(entry.path());
            for (std::string line; std::getline(file, line);) {
                if (!line.starts_with("#include \"")) continue;
                const std::string included = moduleOf(layers, line.substr(10, line.rfind('"') - 10));
                EXPECT_TRUE(included == module || layers.at(module).contains(included)) << path << ": " << line;
            }
        }
    }
}
