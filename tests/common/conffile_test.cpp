#include "common/conffile/conffile.h"

#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <thread>

#include "tests/world/world.h"

using namespace std::string_literals;

// All pairs in the list's order, "[key|value]" each, or "none" without a configuration.
static std::string render(const OwnedConfig& config) {
    if (!config) return "none";
    std::string all;
    for (const ConfigPair* pair = nullptr; (pair = configFileNextKVPair(config.get(), pair));) {
        all += "["s + configFilePairGetKey(pair) + "|" + configFilePairGetValue(pair) + "]";
    }
    return all;
}

TEST(ConfigFile, ReadsTheSamePairsFromBytesAndFile) {
    std::vector<std::pair<std::string, std::string>> cases = {
        {"\r\n\n\r",                     ""                        },
        {"a=1\rb=2\nc=3\r\n\n\rd=4",     "[d|4][c|3][b|2][a|1]"    },
        {"\t\v\f two keys\t=\v value\f", "[two|value]"             },
        {"a=b=c\n=value\nkey=\n=",       "[|][key|][|value][a|b=c]"},
        {R"("two keys"rest= " v " r)",   "[two keys| v ]"          },
        {R"(key="never closed\)",        R"([key|never closed\])"  },
        {R"(key="c:\dir\\"x" y)",        R"([key|c:\dir\"x])"      },
        {R"(key="a \"very\" word" \")",  R"([key|a "very" word])"  },
        {R"("a=b"=c)",                   R"([a|b"=c])"             },
        {"a=1\n"s + '\0' + "no pair",    "[a|1]"                   },
        {"a=1\nb"s + '\0' + "=2",        "none"                    },
        {"a=1\n  \nb=2",                 "none"                    },
    };
    for (const size_t size : {4094UL, 4095UL, 4096UL, 4097UL, 9000UL}) {
        cases.emplace_back("k=" + std::string(size - 2, 'x'), "[k|" + std::string(size - 2, 'x') + "]");
    }
    for (const auto& [text, pairs] : cases) {
        const std::string cut = pairs.substr(0, 4096) + "]";  // also of bytes, when they are as many as a file's room
        EXPECT_EQ(render(configFileLoadFromBytes(text.data(), text.size())), text.size() == 4096 ? cut : pairs);
        world::writeFile("/media/test.conf", text);
        EXPECT_EQ(render(configFileLoad("/media/test.conf")), text.size() >= 4096 ? cut : pairs);
    }
    int ends[2], unread = 1;
    ASSERT_TRUE(pipe(ends) == 0 && write(ends[1], "a=1\nb", 5) == 5);
    std::jthread writer([&] {  // the second piece comes once the first is read
        EXPECT_TRUE(world::waitFor([&] { return ioctl(ends[0], FIONREAD, &unread) == 0 && unread == 0; }));
        (void)!write(ends[1], "=2", 2);
        close(ends[1]);
    });
    EXPECT_EQ(render(configFileLoad(("/proc/self/fd/" + std::to_string(ends[0])).c_str())), "[b|2][a|1]");
    EXPECT_STREQ(configFileValue(configFileLoadFromBytes("a=1\nb=x\na=2", 11).get(), "a"), "2");
}
