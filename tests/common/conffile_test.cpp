#include "common/conffile/conffile.h"

#include <gtest/gtest.h>

#include "tests/world/test_log.h"

static int iFailingAllocation = 0;  // counts down; the one that reaches 0 fails

extern "C" {
decltype(malloc) __real_malloc, __wrap_malloc;
decltype(calloc) __real_calloc, __wrap_calloc;
void* __wrap_malloc(size_t size) noexcept { return --iFailingAllocation ? __real_malloc(size) : nullptr; }
void* __wrap_calloc(size_t n, size_t size) noexcept { return --iFailingAllocation ? __real_calloc(n, size) : nullptr; }
}

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

static OwnedConfig loadThroughFile(const std::string& text) {
    world::writeFile("/media/test.conf", text);
    return configFileLoad("/media/test.conf");
}

static OwnedConfig loadBytes(const std::string& text) { return configFileLoadFromBytes(text.data(), text.size()); }

TEST(ConfigFile, ReadsTheSamePairsFromBytesAndFromAFile) {
    const std::pair<std::string, std::string> cases[] = {
        {"\r\n\n\r",                      ""                        },
        {"a=1\rb=2\nc=3\r\n\n\rd=4",      "[d|4][c|3][b|2][a|1]"    },
        {"a=b=c\n=value\nkey=\n=",        "[|][key|][|value][a|b=c]"},
        {"\t\v\f two keys\t=\v value\f",  "[two|value]"             },
        {"\"two keys\"rest= \" v \" r",   "[two keys| v ]"          },
        {R"(key="a \"quoted\" word" \")", R"([key|a "quoted" word])"},
        {R"(key="c:\dir\\"x" y)",         R"([key|c:\dir\"x])"      },
        {R"(key="never closed\)",         R"([key|never closed\])"  },
        {R"("a=b"=c)",                    R"([a|b"=c])"             },
        {"a=1\n"s + '\0' + "no pair",     "[a|1]"                   },
        {"a=1\nb"s + '\0' + "=2",         "none"                    },
        {"a=1\n  \nb=2",                  "none"                    },
    };
    for (const auto& [text, pairs] : cases) {
        EXPECT_EQ(render(loadBytes(text)), pairs) << text;
        EXPECT_EQ(render(loadThroughFile(text)), pairs) << text;
    }
}

TEST(ConfigFile, ParsesAtMost4095BytesOfAFileAndCutsBytesAt4096Only) {
    for (const size_t size : {4094UL, 4095UL, 4096UL, 4097UL, 9000UL}) {
        const std::string text = "k=" + std::string(size - 2, 'x');
        EXPECT_EQ(render(loadThroughFile(text)).size(), std::min<size_t>(size, 4095) + 2);
        EXPECT_EQ(render(loadBytes(text)).size(), (size == 4096 ? 4095 : size) + 2);
    }
}

TEST(ConfigFile, SaysOnceWhyItFailed) {
    const OwnedConfig config = loadBytes("a=1\nb=x\na=2");
    const OwnedConfig empty = loadBytes("");
    (void)world::startLog();
    EXPECT_FALSE(configFileLoad(nullptr));
    EXPECT_FALSE(configFileLoad("/media/missing"));
    EXPECT_FALSE(configFileLoad("/media"));
    EXPECT_FALSE(loadThroughFile("a=1\nb\nc\n"));
    EXPECT_FALSE(configFileLoadFromBytes(nullptr, 0));
    EXPECT_STREQ(configFileValue(config.get(), "a"), "2");
    EXPECT_EQ(configFileValue(config.get(), nullptr), nullptr);
    EXPECT_EQ(configFileValue(nullptr, "a"), nullptr);
    EXPECT_EQ(configFileValue(empty.get(), "a"), nullptr);
    EXPECT_EQ(world::takeLog(), R"(DEBUG path is null
 INFO parsing configuration file: /media/missing
DEBUG cannot open file: /media/missing
 INFO parsing configuration file: /media
 WARN cannot load configuration
 INFO parsing configuration file: /media/test.conf
 WARN syntax error in configuration
 INFO parsing configuration from server
 WARN cannot load configuration
 WARN key is null
 WARN cfile is null
 WARN cfile does not contain any key-value pairs
)");
}

TEST(ConfigFile, FailsWholeWhenMemoryIsShort) {
    world::writeFile("/media/test.conf", "a=1\nb=2");
    (void)world::startLog();
    int failing = 0;
    for (const char* const what : {"ConfigFile", "ConfigFile content", "ConfigPair", "ConfigPair"}) {
        iFailingAllocation = ++failing;
        EXPECT_FALSE(configFileLoad("/media/test.conf"));
        EXPECT_TRUE(world::takeLog().ends_with(" WARN cannot allocate memory for "s + what + "\n"));
    }
}
