// The rule of who may include whom, as the file "layers" states it.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

TEST(Layers, EveryIncludeIsAllowed) {
    std::filesystem::current_path(ORSM_SOURCE_FOLDER);
    std::map<std::string, std::set<std::string>> layers;  // of each folder what it may include, itself among it
    std::ifstream rules("layers");
    for (std::string line, allowed; std::getline(rules, line);) {
        if (line.starts_with('#')) continue;
        const std::string folder = line.substr(0, line.find(':'));
        layers[folder].insert(folder);
        std::istringstream words(line.substr(folder.size() + 1));
        while (words >> allowed) {
            EXPECT_TRUE(layers.contains(allowed)) << line << ": " << allowed << " does not stand above";
            layers[folder].insert(allowed);
            // On a gateway the platform's own library stands there, and brings nothing of ours.
            if (allowed == "platform/pcb" && !folder.starts_with("platform/")) continue;
            layers[folder].insert(layers[allowed].begin(), layers[allowed].end());
        }
    }
    for (const char* top : {"common", "pcblib", "platform", "src", "simulator"}) {
        for (const std::filesystem::path& path : std::filesystem::recursive_directory_iterator(top)) {
            if (path.extension() != ".h" && path.extension() != ".cpp") continue;
            ASSERT_TRUE(layers.contains(path.parent_path())) << path << " is in no folder of the list";
            std::ifstream file(path);
            for (std::string line; std::getline(file, line);) {
                if (!line.starts_with("#include \"")) continue;
                EXPECT_TRUE(layers[path.parent_path()].contains(line.substr(10, line.rfind('/') - 10)))
                    << path << ": " << line;
            }
        }
    }
}
