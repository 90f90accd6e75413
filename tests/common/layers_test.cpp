// What stands in two places: who may include whom, as "layers" says, and each message, as docs/messages.md lists it.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "tests/world/world.h"

static std::vector<std::smatch> matches(const std::string& text, const char* pattern) {
    const std::regex regex(pattern);
    return {std::sregex_iterator(text.begin(), text.end(), regex), std::sregex_iterator()};
}

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
            const std::string text = world::readFile(path);
            for (const std::smatch& found : matches(text, "#include \"(.*)/")) {
                EXPECT_TRUE(layers[path.parent_path()].contains(found[1])) << path << " includes from " << found[1];
            }
            // A log line names the file's folder, or the module in it.
            for (const std::smatch& found : matches(text, "\n[^/\n]*char KLogModule\\[\\] = \"(.*)\";")) {
                const std::filesystem::path named = found[1].str();
                const bool isModule = std::filesystem::exists(found.str(1) + ".h");
                EXPECT_EQ(isModule ? named.parent_path() : named, path.parent_path()) << path;
            }
        }
    }
}

TEST(Messages, StandInTheirPageWithTheirLevel) {
    std::filesystem::current_path(ORSM_SOURCE_FOLDER);
    std::string sources, level;
    for (const char* top : {"common", "pcblib", "src"}) {
        for (const std::filesystem::path& path : std::filesystem::recursive_directory_iterator(top)) {
            if (path.extension() == ".cpp") sources += world::readFile(path);
        }
    }
    const std::string page = world::readFile("docs/messages.md");
    std::set<std::string> named;  // each text in the page's tables, also with its level in front
    for (const auto& found : matches(page, "\n(?:\\| (\\w+))?|`([^`]+)`")) {
        if (!found[2].matched) level = found[1];
        if (!found[2].matched || level.empty()) continue;
        named.insert({found[2], level + " " + found.str(2)});
        EXPECT_NE(sources.find('"' + found.str(2) + '"'), std::string::npos) << "only in the page: " << found[2];
    }
    for (const auto& found : matches(sources, R"re((?:(?:LOG\(|LEVEL_)(\w+),[^";(]*)?"((?:\\.|[^"\\\n])*)")re")) {
        const std::string text = found[2], message = found[1].matched ? found.str(1) + " " + text : text;
        // In a table, what begins with a capital letter and has two words is logged, or printed.
        const bool counts = found[1].matched ? text != "%s" : isupper(text[0]) && text.find(' ') != std::string::npos;
        EXPECT_TRUE(!counts || named.contains(message)) << "not in docs/messages.md: " << message;
    }
}
