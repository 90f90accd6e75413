#include "common/log/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>

#include <filesystem>
#include <thread>
#include <tuple>

#include "tests/world/test_log.h"
#include "tests/world/wrap.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "tests/log";

static int iWrites;           // of the code under test
static time_t iSecondsLater;  // than the first test's date

WRAP(ssize_t, write, int file, const void* bytes, size_t length) {
    ++iWrites;
    return __real_write(file, bytes, length);
}
WRAP(int, gettimeofday, timeval* now, void*) { return *now = {1234567890 + iSecondsLater, 7999}, 0; }

using namespace std::string_literals;
using namespace world;

static const char* const KFile = "/var/log/f";

// Defaults of a test. The first of two settings with one key wins, so a test puts its own settings first.
#define TO_FILE " enabled=true file=true filename=/var/log/f category.unassigned=ERROR levels=QUIET"

// A configuration with one "logger." line for each word.
static std::string settings(const std::string& words) {
    std::string lines;
    std::istringstream all(words);
    for (std::string word; all >> word;) {
        lines += "logger." + word + "\n";
    }
    return lines;
}

static void configure(const std::string& words) {
    const std::string text = settings(words) + "logger_enabled=no\n";  // no key of the log
    debug_init(configFileLoadFromBytes(text.data(), text.size()).get());
}

TEST(Log, WritesTheSameLineToEveryOutputWithOneWriteEach) {
    // A private /dev with a system log. Where mounting it is refused, the system log is not tested.
    const bool mounted = unshare(CLONE_NEWNS) == 0 && mount("dev", "/dev", "tmpfs", 0, nullptr) == 0;
    const int systemLog = socket(AF_UNIX, SOCK_DGRAM, 0);
    const sockaddr_un address = {AF_UNIX, "/dev/log"};
    ASSERT_TRUE(!mounted || bind(systemLog, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
    char received[9000];
    const std::tuple<const char*, const char*, size_t> levels[] = {
  // 54 are no message, 7999 have room
        {"TRACE",  "<15>", 54   },
        {"DEBUG",  "<14>", 4097 },
        {" INFO",  "<13>", 7998 },
        {" WARN",  "<12>", 7999 },
        {"ERROR",  "<11>", 8000 },
        {"SYSLOG", "<13>", 20000},
    };
    std::string all;
    for (const std::string identity : {"unknown", "orsm", "another"}) {
        const std::string hour = std::to_string(3 + ++iSecondsLater);
        setenv("TZ", ("XYZ-" + hour + ":30").c_str(), 1);
        configure((identity == "unknown" ? "" : "syslog.ident=" + identity) + (mounted ? " syslog=true" : "") +
                  " stdout=yes lineandfile=true level=TRACE" TO_FILE);
        for (int level = LEVEL_TRACE; level <= LEVEL_SYSLOG; ++level) {
            const auto& [name, priority, length] = levels[level];
            std::string line = "2009-02-14 0" + hour + ":01:3" + std::to_string(iSecondsLater) + ".007 " + name +
                               " file: src/x, line: -7 - ";
            const std::string message(length - line.size(), '%');
            line.append(message).resize(std::min<size_t>(length, 7999));
            line += "\n";
            testing::internal::CaptureStdout();
            printf("printed before ");
            iWrites = 0;
            _log("any", level, "src/x", -7, "%s", message.c_str());
            EXPECT_EQ(iWrites, level == LEVEL_SYSLOG ? 3 : 2);
            EXPECT_EQ(testing::internal::GetCapturedStdout(), "printed before " + line);
            EXPECT_EQ(readFile(KFile), all += line);
            if (!mounted) continue;
            const ssize_t got = recv(systemLog, received, sizeof received, MSG_DONTWAIT);
            ASSERT_GT(got, 20);
            EXPECT_EQ(std::string(received, received + got).erase(4, 16),
                      priority + identity + "[" + std::to_string(getpid()) + "]: " + line.substr(24));
        }
    }
}

TEST(Log, MessageCannotForgeALineOrControlATerminal) {
    configure(TO_FILE);
    LOG(ERROR, "\n%s: \n %s\n", "a\r\n2009\t\x1b[2J", "\x01\x1f\x7f\xc2\x80\xc2\x9f|\xc2\xa0\xc3\xa4\n");
    EXPECT_EQ(readFile(KFile).substr(24), "ERROR \na  2009 ?[2J: \n ???????|\xc2\xa0\xc3\xa4 \n\n");
    LOG(ERROR, "%s\n", std::string(8000, 'x').c_str());  // the break is cut off
}

TEST(Log, RotatesTheConfiguredNumberOfFiles) {
    umask(0);
    for (const int64_t count : {1LL, 2LL, -99999999999LL, 99999999999LL}) {
        const std::string folder = "/var/log/rotated." + std::to_string(count);
        // A line takes 33 bytes: a file that holds exactly the limit takes one more.
        configure("max_file_size=33 max_file_count=" + std::to_string(count) + " rolling_file_path=" + folder);
        for (int message = 1; message <= 8; ++message) {
            LOG(SYSLOG, "%d", message);
        }
        EXPECT_EQ(std::filesystem::status(folder).permissions(), std::filesystem::perms(0744));
        EXPECT_EQ(std::filesystem::status(folder + "/kelm.0.log").permissions(), std::filesystem::perms(0644));
        for (int index = 0; index < 5; ++index) {
            const auto line = [index](int message) { return "SYSLOG " + std::to_string(message - 2 * index) + "\n"; };
            EXPECT_EQ(takeLog(folder + "/kelm." + std::to_string(index) + ".log"),
                      index < std::clamp<int64_t>(count, 1, 4) ? line(7) + line(8) : "");
        }
    }
}

TEST(Log, CategoryThresholdOverridesGlobalThreshold) {
    // The lowest level that passes for categories a, b, c and a again. Level 5 always passes; a reset keeps "level".
    const std::pair<std::string, std::string> cases[] = {
        {"enabled=yes",                                                                "4444"},
        {"enabled=true level=quiet category.a=Debug",                                  "1551"},
        {"enabled=True level=TRACE",                                                   "5555"},
        {"enabled=true level=quiet category.a=WARN category.a=DEBUG category.c=TRACE", "3503"},
        {"enabled=yess level=TRACE",                                                   "5555"},
        {"level=TRACE",                                                                "5555"},
        {"enabled=true enabled=no category.a=TRACE level=TRACE",                       "5555"},
    };
    for (const auto& [words, expected] : cases) {
        configure("file=true filename=/var/log/f " + words);
        std::string passing;
        for (const char* const category : {"a", "b", "c", "a"}) {
            int level = LEVEL_TRACE;
            for (iWrites = 0; iWrites == 0; ++level) {
                _log(category, level, "", 0, "x");
            }
            passing += std::to_string(level - 1);
        }
        EXPECT_EQ(passing, expected) << words;
    }
}

TEST(Log, SmallPipeTakesALineAndFailingOutputsAreSilent) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(fcntl(ends[1], F_SETPIPE_SZ, 8192), 8192);
    const int console = dup(STDOUT_FILENO);
    configure("stdout=true enabled=true");
    dup2(ends[1], STDOUT_FILENO);
    for (int i = 0; i < 3; ++i) {
        LOG(ERROR, "%s", std::string(9000, 'x').c_str());
        char line[9000];
        EXPECT_EQ(read(ends[0], line, sizeof line), 8000);
    }
    close(ends[0]);
    for (const auto& [broken, path] : {std::pair("filename=/var/log"s, "/var/log/kelm.0.log"),
                                       std::pair("rolling_file_path=/missing/folder"s, KFile)}) {
        configure("stdout=true " + broken + TO_FILE);
        dup2(ends[1], STDOUT_FILENO);
        errno = 4321;
        LOG(SYSLOG, "x");
        EXPECT_EQ(errno, 4321);
        dup2(console, STDOUT_FILENO);
        EXPECT_EQ(takeLog(path), "SYSLOG x\n");
    }
}

// Reads what comes within this time, at most 4000 bytes; false when nothing does.
static bool readMore(int file, std::string& text, int milliseconds) {
    char piece[4000];
    pollfd readable = {file, POLLIN, 0};
    if (poll(&readable, 1, milliseconds) <= 0) return false;
    text.append(piece, static_cast<size_t>(std::max<ssize_t>(read(file, piece, sizeof piece), 0)));
    return true;
}

TEST(Log, SlowReaderGetsWholeLinesAndStoppedReaderDelaysOnce) {
    const int console = dup(STDOUT_FILENO);
    const auto message = [](int number) { return std::to_string(number) + std::string(7900, 'x'); };
    const auto logLines = [&](int from, int count) {
        for (int number = from; number < from + count; ++number) {
            LOG(ERROR, "%s", message(number).c_str());
        }
    };
    configure("enabled=true stdout=true");
    for (const bool isPipe : {true, false}) {
        int ends[2] = {posix_openpt(O_RDWR | O_NOCTTY), -1};
        ASSERT_EQ(isPipe ? pipe(ends) : grantpt(ends[0]) + unlockpt(ends[0]), 0);
        if (!isPipe) ends[1] = open(ptsname(ends[0]), O_RDWR | O_NOCTTY);
        ASSERT_EQ(dup2(ends[1], STDOUT_FILENO), STDOUT_FILENO);

        std::string got;
        const auto logToSlowReader = [&](int from) {
            const std::jthread reader([&, last = message(from + 29)] {
                while (got.find(last) == std::string::npos && readMore(ends[0], got, 30'000)) {
                    usleep(1000);
                }
            });
            logLines(from, 30);
        };
        logToSlowReader(0);
        logLines(100, 90);  // nobody reads, and the test has no time to wait for each
        EXPECT_TRUE(waitFor([&] {
            while (readMore(ends[0], got, 0)) {
            }
            LOG(ERROR, "read again");
            return got.ends_with("read again\n") || got.ends_with("read again\r\n");
        }));
        logToSlowReader(200);
        dup2(console, STDOUT_FILENO);

        std::erase(got, '\r');
        std::istringstream all(got);
        int whole[3] = {}, torn = 0;
        for (std::string line; std::getline(all, line);) {
            if (line.erase(0, 30) == "read again") continue;
            const int number = std::stoi(line);
            EXPECT_TRUE(message(number).starts_with(line));
            ++(line == message(number) ? whole[number / 100] : torn);
        }
        EXPECT_TRUE(whole[0] == 30 && whole[2] == 30) << "a reader that is only slow misses lines";
        EXPECT_LE(torn, isPipe ? 0 : 1);
    }
}

TEST(Log, FileNameIsCutHasADefaultAndIsNoReasonToWrite) {
    ASSERT_EQ(chdir("/media"), 0);
    const std::string longest = "/var/log/" + std::string(246, 'n');
    for (const std::string& words : {"file=true filename=" + longest + "more", "file=true"s, ""s}) {
        configure("enabled=true " + words);
        LOG(ERROR, "%s", words.substr(0, 10).c_str());
    }
    EXPECT_EQ(takeLog(longest) + "|" + takeLog("zolclient.log"), "ERROR file=true \n|ERROR file=true\n");
}

TEST(LogReload, HappensAtTheNextCallEvenIfItsLineIsDropped) {
    ASSERT_EQ(chdir("/media"), 0);
    configure("category.unassigned=INFO" TO_FILE);
    const int lowest = dup(0);
    const auto hangUp = [](const std::string& content) {
        writeFile("zolclient.log", content);
        raise(SIGHUP);
    };
    ASSERT_EQ(mkfifo("zolclient.log", 0600), 0);
    raise(SIGHUP);
    LOG(ERROR, "as before");
    unlink("zolclient.log");
    hangUp("broken");
    LOG(ERROR, "broken, so nothing changes");
    hangUp("");
    LOG(TRACE, "dropped by its level, but takes the hang-up");
    writeFile("zolclient.log", settings("level=INFO" TO_FILE));
    LOG(ERROR, "switched off until the next hang-up");
    raise(SIGHUP);
    LOG(INFO, "reloaded before this line");
    const std::string parsing = " INFO parsing configuration file: zolclient.log\n";
    EXPECT_EQ(takeLog(KFile), parsing + " WARN not an ordinary file: zolclient.log\nERROR as before\n" + parsing +
                                  " WARN syntax error in configuration\nERROR broken, so nothing changes\n" + parsing +
                                  " INFO reloaded before this line\n");
    EXPECT_EQ(dup(0), lowest + 1) << "a file is left open";
}
