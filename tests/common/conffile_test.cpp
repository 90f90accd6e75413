#include "common/conffile/conffile.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "common/log/log_settings.h"
#include "tests/world/world.h"

static int iFailingAllocation = 0;  // counts down; the one that reaches 0 fails

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __wrap_malloc(size_t size);
void* __wrap_calloc(size_t count, size_t size);
void* __wrap_malloc(size_t size) { return --iFailingAllocation ? __real_malloc(size) : nullptr; }
void* __wrap_calloc(size_t count, size_t size) { return --iFailingAllocation ? __real_calloc(count, size) : nullptr; }
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

static void logToFile() {
    debug_init(
        loadBytes("logger.enabled=true\nlogger.level=DEBUG\nlogger.file=true\nlogger.filename=/media/log").get());
}

// What was logged since the last look, each line from its level on and ended by a "/".
static std::string takeLog() {
    std::string lines;
    std::istringstream all(world::readFile("/media/log"));
    for (std::string line; std::getline(all, line);) {
        lines += line.substr(24) + "/";
    }
    unlink("/media/log");
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
    logToFile();
    takeLog();
    EXPECT_FALSE(configFileLoad(nullptr));
    EXPECT_EQ(takeLog(), "DEBUG path is null/");
    EXPECT_FALSE(configFileLoad("/media/missing"));
    EXPECT_EQ(takeLog(), " INFO parsing configuration file: /media/missing/DEBUG cannot open file: /media/missing/");
    EXPECT_FALSE(configFileLoad("/media"));
    EXPECT_EQ(takeLog(), " INFO parsing configuration file: /media/ WARN cannot load configuration/");
    EXPECT_FALSE(configFileLoadFromBytes(nullptr, 0));
    EXPECT_EQ(takeLog(), " INFO parsing configuration from server/ WARN cannot load configuration/");
    EXPECT_FALSE(loadThroughFile("a=1\nb\nc\n"));
    EXPECT_EQ(takeLog(), " INFO parsing configuration file: /media/test.conf/ WARN syntax error in configuration/");
    EXPECT_STREQ(configFileValue(config.get(), "a"), "2");
    EXPECT_EQ(configFileValue(config.get(), "A"), nullptr);
    EXPECT_EQ(configFileValue(config.get(), nullptr), nullptr);
    EXPECT_EQ(configFileValue(nullptr, "a"), nullptr);
    EXPECT_EQ(takeLog(), " WARN key is null/ WARN cfile is null/");
    EXPECT_EQ(configFileValue(loadBytes("").get(), "a"), nullptr);
    EXPECT_EQ(takeLog(), " INFO parsing configuration from server/ WARN cfile does not contain any key-value pairs/");
    EXPECT_EQ(configFileNextKVPair(nullptr, nullptr), nullptr);
    configFileFree(nullptr);
}

TEST(ConfigFile, FailsWholeWhenMemoryIsShort) {
    logToFile();
    const std::string text = "a=1\nb=2";
    world::writeFile(KFile, text);
    int failing = 0;
    for (const char* const what : {"ConfigFile", "ConfigFile content", "ConfigPair", "ConfigPair"}) {
        const std::string line = " WARN cannot allocate memory for "s + what + "/";
        ++failing;
        takeLog();
        iFailingAllocation = failing;
        EXPECT_FALSE(loadBytes(text));
        EXPECT_EQ(takeLog(), " INFO parsing configuration from server/" + line);
        iFailingAllocation = failing;
        EXPECT_FALSE(configFileLoad(KFile));
        EXPECT_EQ(takeLog(), " INFO parsing configuration file: /media/test.conf/" + line);
    }
}
