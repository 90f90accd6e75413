// The program as it ships.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <sstream>

#include "tests/world/world.h"

TEST(Release, NeedsOnlyTheLibrariesOfAGateway) {
    std::string output;
    ASSERT_EQ(world::run({"readelf", "-d", world::binary("orvoservicemanager")}, &output), 0);
    std::set<std::string> needed;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (line.find("(NEEDED)") == std::string::npos) continue;
        const std::string library = line.substr(line.find('[') + 1);
        needed.insert(library.substr(0, library.find_first_of("-.")));
    }
    EXPECT_EQ(needed, (std::set<std::string>{"libc", "libcjson", "libcurl", "libdbus", "libevent_core"}));
    EXPECT_NE(output.find("BIND_NOW"), std::string::npos);
    EXPECT_NE(output.find("PIE"), std::string::npos);

    ASSERT_EQ(world::run({"strip", "-o", "/var/run/stripped", world::binary("orvoservicemanager")}), 0);
    printf("stripped size: %ju bytes\n", std::filesystem::file_size("/var/run/stripped"));
}
