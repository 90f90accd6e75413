// The program as it ships.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <sstream>

#include "tests/world/world.h"

TEST(Release, NeedsOnlyTheLibrariesOfAGateway) {
    std::string output;
    ASSERT_EQ(world::run({"readelf", "-d", ORSM_DAEMON}, &output), 0);
    std::set<std::string> needed;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (line.find("(NEEDED)") == std::string::npos) continue;
        const std::string library = line.substr(line.find('[') + 1);
        needed.insert(library.substr(0, library.find_first_of("-.")));
    }
    needed.erase("ld");  // the loader itself, where it offers the thread-local variables
    EXPECT_EQ(needed, (std::set<std::string>{"libc", "libcjson", "libcurl", "libdbus", "libevent_core"}));
    EXPECT_NE(output.find("BIND_NOW"), std::string::npos);
    EXPECT_NE(output.find("PIE"), std::string::npos);

    const std::string program = world::readFile(ORSM_DAEMON);
    EXPECT_NE(program.find(".debug_info"), std::string::npos);
    EXPECT_EQ(program.find(ORSM_SOURCE_FOLDER), std::string::npos) << "each folder gives another build-id";

    ASSERT_EQ(world::run({ORSM_STRIP, "-o", "/var/run/stripped", ORSM_DAEMON}), 0);
    const uintmax_t size = std::filesystem::file_size("/var/run/stripped");
    EXPECT_LE(size, sizeof(void*) == 4 ? 150U * 1024 : 200U * 1024);
    printf("figure: the program: %ju bytes stripped\n", size);
}
