#include "common/conffile/conffile.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "common/text/text.h"
#include "tests/world/test_log.h"

static int iFailingAllocation = 0;  // counts down; the one that reaches 0 fails

extern "C" {
decltype(malloc) __real_malloc, __wrap_malloc;
decltype(calloc) __real_calloc, __wrap_calloc;
void* __wrap_malloc(size_t size) noexcept { return --iFailingAllocation ? __real_malloc(size) : nullptr; }
void* __wrap_calloc(size_t n, size_t size) noexcept { return --iFailingAllocation ? __real_calloc(n, size) : nullptr; }
}

using namespace std::string_literals;

static const char KFile[] = "/media/test.conf";

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
    world::writeFile(KFile, text);
    return configFileLoad(KFile);
}

static OwnedConfig loadBytes(const std::string& text) { return configFileLoadFromBytes(text.data(), text.size()); }

// What was logged since the last look, each line from its level on.
static std::string takeLog() {
    std::string lines;
    std::istringstream all(world::readFile("/var/log/test.log"));
    for (std::string line; std::getline(all, line);) {
        lines += line.substr(24) + "\n";
    }
    unlink("/var/log/test.log");
    return lines;
}

TEST(ConfigFile, ReadsTheSamePairsFromBytesAndFromAFile) {
    const std::pair<std::string, std::string> cases[] = {
        {"",                              ""                        },
        {"\r\n\n\r",                      ""                        },
        {"a=1\rb=2\nc=3\r\n\n\rd=4",      "[d|4][c|3][b|2][a|1]"    },
        {"a=b=c\n=value\nkey=\n=",        "[|][key|][|value][a|b=c]"},
        {"key = two words",               "[key|two]"               },
        {"\t\v\f two keys\t=\v value\f",  "[two|value]"             },
        {"k=\xa0\x85\xff x",              "[k|\xa0\x85\xff]"        },
        {"key= \"two words\" rest",       "[key|two words]"         },
        {"\"two keys\"rest=\" v \"",      "[two keys| v ]"          },
        {R"(key="a \"quoted\" word" \")", R"([key|a "quoted" word])"},
        {R"(key="c:\dir\\"x" y)",         R"([key|c:\dir\"x])"      },
        {R"(key="never closed\)",         R"([key|never closed\])"  },
        {R"(key=mid"dle"\" x)",           R"([key|mid"dle"\"])"     },
        {R"("a=b"=c)",                    R"([a|b"=c])"             },
        {"a=\"\"\nb=\"\n c=   ",          "[c|][b|][a|]"            },
        {"a=1\na=2",                      "[a|2][a|1]"              },
        {"a=1\n"s + '\0' + "no pair",     "[a|1]"                   },
        {"a=1\nb"s + '\0' + "=2",         "none"                    },
        {"# a=b",                         "[#|b]"                   },
        {"# a comment",                   "none"                    },
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
        EXPECT_EQ(loadThroughFile(text)->contentLength, std::min<size_t>(size, 4096));
    }
    const std::string line = "k=" + std::string(4090, 'x') + "\n";
    EXPECT_EQ(render(loadThroughFile(line + "a=123")).substr(0, 5), "[a|][");
    EXPECT_EQ(render(loadThroughFile(line + "ab=123")), "none");
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
    EXPECT_EQ(configFileValue(config.get(), "A"), nullptr);
    EXPECT_EQ(configFileValue(config.get(), nullptr), nullptr);
    EXPECT_EQ(configFileValue(nullptr, "a"), nullptr);
    EXPECT_EQ(configFileValue(empty.get(), "a"), nullptr);
    EXPECT_EQ(configFileNextKVPair(nullptr, nullptr), nullptr);
    configFileFree(nullptr);
    EXPECT_EQ(takeLog(), R"(DEBUG path is null
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
    (void)world::startLog();
    world::writeFile(KFile, "a=1\nb=2");
    int failing = 0;
    for (const char* const what : {"ConfigFile", "ConfigFile content", "ConfigPair", "ConfigPair"}) {
        iFailingAllocation = ++failing;
        EXPECT_FALSE(configFileLoad(KFile));
        iFailingAllocation = failing;
        EXPECT_FALSE(loadBytes("a=1\nb=2"));
        const std::string warning = " WARN cannot allocate memory for "s + what + "\n";
        EXPECT_EQ(takeLog(), formatText(" INFO parsing configuration file: /media/test.conf\n%s"
                                        " INFO parsing configuration from server\n%s",
                                        warning.c_str(), warning.c_str())
                                 .get());
    }
}
