#include "common/log/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <filesystem>
#include <thread>

#include "tests/world/test_log.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "tests/log";

static int iWrites;  // of the code under test

extern "C" {
decltype(write) __real_write, __wrap_write;
decltype(gettimeofday) __wrap_gettimeofday;
ssize_t __wrap_write(int file, const void* bytes, size_t length) {
    ++iWrites;
    return __real_write(file, bytes, length);
}
int __wrap_gettimeofday(timeval* now, void*) noexcept { return *now = {1234567890, 7999}, 0; }
}

using namespace std::string_literals;
using namespace world;

static const char* const KFile = "/var/log/f";
static const char* const KNames[] = {"TRACE", "DEBUG", " INFO", " WARN", "ERROR", "SYSLOG"};

// Of two settings with one key the first wins, so what a test wants otherwise stands in front of this.
#define TO_FILE " enabled=true file=true filename=/var/log/f category.unassigned=ERROR"

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
    const std::string text = settings(words);
    debug_init(configFileLoadFromBytes(text.data(), text.size()).get());
}

TEST(Log, WritesTheSameLineToEveryOutputWithOneWriteEach) {
    setenv("TZ", "XYZ-3:30", 1);
    configure("stdout=yes lineandfile=true level=TRACE" TO_FILE);
    const size_t lengths[] = {60, 4097, 7998, 7999, 8000, 20000};  // 7999 have room
    std::string all;
    for (int level = LEVEL_TRACE; level <= LEVEL_SYSLOG; ++level) {
        std::string line = "2009-02-14 03:01:30.007 "s + KNames[level] + " file: src/x, line: -7 - ";
        const std::string message(lengths[level] - line.size(), 'x');
        line.append(message).resize(std::min<size_t>(lengths[level], 7999));
        line += "\n";
        testing::internal::CaptureStdout();
        printf("printed before ");
        iWrites = 0;
        _log("any", level, "src/x", -7, "%s", message.c_str());
        EXPECT_EQ(iWrites, level == LEVEL_SYSLOG ? 3 : 2);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "printed before " + line);
        EXPECT_EQ(readFile(KFile), all += line);
        EXPECT_EQ(readFile("/var/log/kelm.0.log"), level == LEVEL_SYSLOG ? line : "");
    }
}

TEST(Log, SendsThePriorityAndTheLineAsDataToTheSystemLog) {
    // A /dev of its own, for this process alone.
    if (unshare(CLONE_NEWNS) != 0 || mount("dev", "/dev", "tmpfs", 0, nullptr) != 0) GTEST_SKIP() << "needs mounts";
    const int log = socket(AF_UNIX, SOCK_DGRAM, 0);
    const sockaddr_un address = {AF_UNIX, "/dev/log"};
    ASSERT_EQ(bind(log, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    char text[9000];
    const char* const priorities[] = {"<15>", "<14>", "<13>", "<12>", "<11>", "<13>"};
    for (const std::string identity : {"unknown", "orsm", "another"}) {
        configure((identity == "unknown" ? "" : "syslog.ident=" + identity) + " syslog=true level=TRACE" TO_FILE);
        for (int level = LEVEL_TRACE; level <= LEVEL_SYSLOG; ++level) {
            LOG_AT(level, "100%% %s", "%n%s");
            const ssize_t length = recv(log, text, sizeof text, MSG_DONTWAIT);
            ASSERT_GT(length, 20);
            const std::string head = priorities[level] + identity + "[" + std::to_string(getpid()) + "]: ";
            EXPECT_EQ(std::string(text, text + length).erase(4, 16), head + KNames[level] + " 100% %n%s\n");
        }
    }
    configure(TO_FILE);
    LOG(ERROR, "x");
    EXPECT_EQ(recv(log, text, sizeof text, MSG_DONTWAIT), -1);
}

TEST(Log, RotatesAsManyFilesAsAreWanted) {
    for (const int64_t count : {1LL, 2LL, -99999999999LL, 99999999999LL}) {
        const std::string folder = "/var/log/rotated." + std::to_string(count);
        // A line takes 33 bytes: a file that holds exactly the limit takes one more.
        configure("max_file_size=33 max_file_count=" + std::to_string(count) + " rolling_file_path=" + folder);
        for (int message = 1; message <= 8; ++message) {
            LOG(SYSLOG, "%d", message);
        }
        EXPECT_EQ(std::filesystem::status(folder).permissions(), std::filesystem::perms(0744));
        for (int index = 0; index < 5; ++index) {
            const auto line = [index](int message) { return "SYSLOG " + std::to_string(message - 2 * index) + "\n"; };
            EXPECT_EQ(takeLog(folder + "/kelm." + std::to_string(index) + ".log"),
                      index < std::clamp<int64_t>(count, 1, 4) ? line(7) + line(8) : "");
        }
    }
}

TEST(Log, FilterTakesTheCategoryOverTheGlobalThreshold) {
    const std::pair<std::string, std::string> cases[] = {
  // for a, b, c and a again the lowest level that passes; 5 always does, and a threshold outlives a reset
        {"enabled=yes",                                                    "4444"},
        {"enabled=true level=quiet category.a=Debug",                      "1551"},
        {"enabled=true category.a=WARN category.a=DEBUG category.c=TRACE", "3503"},
        {"enabled=true enabled=no category.a=TRACE",                       "5555"},
        {"enabled=true level=info",                                        "2222"},
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

TEST(Log, AnOutputPipeAsSmallAsALineTakesIt) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(fcntl(ends[1], F_SETPIPE_SZ, 8192), 8192);
    const int console = dup(STDOUT_FILENO);
    configure("stdout=true" TO_FILE);
    dup2(ends[1], STDOUT_FILENO);
    for (int i = 0; i < 3; ++i) {
        LOG(ERROR, "%s", std::string(9000, 'x').c_str());
        char line[9000];
        EXPECT_EQ(read(ends[0], line, sizeof line), 8000);
    }
    dup2(console, STDOUT_FILENO);
}

TEST(LogSettings, ResetSomeAndKeepOthers) {
    configure("enabled=yes file=yes stdout=yes filename=n max_file_size=99999999999999999999 rolling_file_path=/r");
    configure("filenames=x x=x =x");
    EXPECT_TRUE(!iLogSettings.file && iLogSettings.standardOutput);
    EXPECT_STREQ(iLogSettings.filename, "zolclient.log");
    EXPECT_EQ(iLogSettings.maxFileSize, INT32_MAX);
    EXPECT_STREQ(iLogSettings.rollingFilePath, "/r");
    configure("filename=" + std::string(300, 'n'));
    EXPECT_EQ(iLogSettings.filename, std::string(255, 'n'));
}

TEST(Log, FailingOutputsAreSilentAndErrnoStays) {
    signal(SIGPIPE, SIG_DFL);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    const int console = dup(STDOUT_FILENO);
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
    testing::internal::CaptureStderr();
    LOG(ERROR, "%ls", L"\x4e00");  // no character of the C locale
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "vsnprintf failed due to error 84\n");
    EXPECT_EQ(takeLog(KFile), "");
}

TEST(LogReload, IsTakenByTheNextCallEvenIfDroppedOrSwitchedOff) {
    ASSERT_EQ(chdir("/media"), 0);
    configure("category.unassigned=INFO" TO_FILE);
    raise(SIGHUP);
    LOG(ERROR, "no file, so nothing changes");
    writeFile("zolclient.log", "broken");
    raise(SIGHUP);
    LOG(ERROR, "broken, so nothing changes");
    writeFile("zolclient.log", "");
    raise(SIGHUP);
    LOG(TRACE, "dropped by its level, but takes the hang-up");
    writeFile("zolclient.log", settings("level=INFO" TO_FILE));
    LOG(ERROR, "switched off until the next hang-up");
    raise(SIGHUP);
    LOG(INFO, "reloaded before this line");
    const std::string parsing = " INFO parsing configuration file: zolclient.log\n";
    EXPECT_EQ(takeLog(KFile), parsing + "ERROR no file, so nothing changes\n" + parsing +
                                  " WARN syntax error in configuration\nERROR broken, so nothing changes\n" + parsing +
                                  " INFO reloaded before this line\n");
}

TEST(LogReload, LosesAndTearsNoLineOfTwoThreads) {
    ASSERT_EQ(chdir("/media"), 0);
    configure(TO_FILE);
    const std::string filler(1000, 'x');
    std::atomic<bool> done = false;
    std::array<int, 2> written = {}, read = {};
    std::vector<std::jthread> threads;
    for (const unsigned name : {0U, 1U}) {
        threads.emplace_back([&, name] {
            while (!done) {
                LOG(ERROR, "%u %d %s", name, written[name]++, filler.c_str());
            }
        });
    }
    // Each reload sends what follows to the next file, so all files together keep the order of each thread's lines.
    std::vector<std::string> files = {KFile};
    for (int i = 0; i < 20; ++i) {
        files.push_back("/var/log/" + std::to_string(i));
        writeFile("zolclient.log", settings("filename=" + files.back() + TO_FILE));
        kill(getpid(), SIGHUP);
        EXPECT_TRUE(waitFor([&] { return access(files.back().c_str(), F_OK) == 0; }));
    }
    done = true;
    threads.clear();
    std::string all;
    for (const std::string& file : files) {
        all += takeLog(file);
    }
    std::istringstream lines(all);
    for (std::string line; std::getline(lines, line);) {
        const unsigned name = line[6] == '1';
        ASSERT_EQ(line, "ERROR " + std::to_string(name) + " " + std::to_string(read[name]++) + " " + filler);
    }
    EXPECT_EQ(read, written);
}
