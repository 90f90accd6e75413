#include "common/log/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <thread>

#include "common/conffile/conffile.h"
#include "common/log/log_settings.h"
#include "tests/world/world.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "tests/log";

static size_t iWrites, iBytesWritten;  // what the code under test handed to write
static bool iInterruptWrite = false;
static void (*iDuringRead)() = nullptr;

extern "C" {
decltype(read) __real_read, __wrap_read;
decltype(write) __real_write, __wrap_write;
ssize_t __wrap_read(int file, void* bytes, size_t length) {
    if (iDuringRead) iDuringRead();
    return __real_read(file, bytes, length);
}
ssize_t __wrap_write(int file, const void* bytes, size_t length) {
    if (std::exchange(iInterruptWrite, false)) return errno = EINTR, -1;
    ++iWrites;
    iBytesWritten += length;
    return __real_write(file, bytes, length);
}
}

using namespace std::string_literals;
using world::readFile;
using world::writeFile;

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

// A standard stream goes elsewhere for its scope.
struct Redirect {
    explicit Redirect(int stream, int target = open("/var/log/stream", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600))
        : stream_(stream), before_(dup(stream)) {
        fflush(nullptr);
        dup2(target, stream);
        close(target);
    }
    ~Redirect() {
        fflush(nullptr);
        dup2(before_, stream_);
        close(before_);
    }
    int stream_, before_;
};

// The file's lines without date and time; the file is removed.
static std::string takeFile(const std::string& path = "/var/log/f") {
    std::string lines;
    std::istringstream all(readFile(path));
    for (std::string line; std::getline(all, line);) {
        lines += line.substr(24) + (all.eof() ? "" : "\n");
    }
    unlink(path.c_str());
    return lines;
}

TEST(Log, WritesTheSameLineToEveryOutputWithOneWriteEach) {
    configure("stdout=yes lineandfile=true level=TRACE" TO_FILE);
    const size_t lengths[] = {60, 4097, 7998, 7999, 8000, 20000};  // 7999 have room
    for (int level = LEVEL_TRACE; level <= LEVEL_SYSLOG; ++level) {
        std::string text = KNames[level] + " file: src/x, line: -7 - "s;
        const std::string message(lengths[level] - 24 - text.size(), 'x');
        text.append(message).resize(std::min<size_t>(lengths[level], 7999) - 24);
        text += "\n";
        iWrites = iBytesWritten = 0;
        iInterruptWrite = true;
        {
            const Redirect toFile(STDOUT_FILENO);
            printf("something printed before: it\n");
            _log("any", level, "src/x", -7, "%s", message.c_str());
        }
        EXPECT_EQ(takeFile("/var/log/stream"), ": it\n" + text);
        EXPECT_EQ(takeFile(), text);
        EXPECT_EQ(takeFile("/var/log/kelm.0.log"), level == LEVEL_SYSLOG ? text : "");
        EXPECT_EQ(iWrites, level == LEVEL_SYSLOG ? 3U : 2U);
        EXPECT_EQ(iBytesWritten, iWrites * (24 + text.size()));
    }
}

TEST(Log, BeginsWithTheLocalTimeAndMilliseconds) {
    setenv("TZ", "XYZ-3:30", 1);
    configure(TO_FILE);
    const time_t before = time(nullptr);
    LOG(ERROR, "x");
    tm local = {};
    std::string line = readFile("/var/log/f");
    strptime(line.c_str(), "%Y-%m-%d %H:%M:%S", &local);
    const time_t logged = timegm(&local) - 12600;
    EXPECT_TRUE(before <= logged && logged <= time(nullptr)) << logged;
    std::replace_if(line.begin(), line.end(), isdigit, '0');
    EXPECT_EQ(line, "0000-00-00 00:00:00.000 ERROR x\n");
}

TEST(Log, SendsThePriorityAndTheLineAsDataToTheSystemLog) {
    // A /dev of its own, for this process alone.
    if (unshare(CLONE_NEWNS) != 0 || mount("dev", "/dev", "tmpfs", 0, nullptr) != 0) GTEST_SKIP() << "needs mounts";
    const int log = socket(AF_UNIX, SOCK_DGRAM, 0);
    const sockaddr_un address = {AF_UNIX, "/dev/log"};
    ASSERT_EQ(bind(log, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    const auto received = [log] {  // without the date
        char text[9000];
        const ssize_t length = recv(log, text, sizeof text, MSG_DONTWAIT);
        return length < 20 ? "" : std::string(text, 4) + std::string(text + 20, static_cast<size_t>(length) - 20);
    };
    const std::string process = "[" + std::to_string(getpid()) + "]: ";
    configure("syslog=true level=TRACE" TO_FILE);
    for (int level = LEVEL_TRACE; level <= LEVEL_SYSLOG; ++level) {
        const char* const priorities[] = {"<15>", "<14>", "<13>", "<12>", "<11>", "<13>"};
        LOG_AT(level, "100%% %s", "%n%s");
        EXPECT_EQ(received(), priorities[level] + "unknown"s + process + KNames[level] + " 100% %n%s\n");
    }
    for (const std::string identity : {"orsm", "another"}) {
        configure("syslog.ident=" + identity + " syslog=true" TO_FILE);
        LOG(WARN, "x");
        EXPECT_EQ(received(), "<12>" + (identity + process) + " WARN x\n");
    }
    configure(TO_FILE);
    LOG(ERROR, "x");
    EXPECT_EQ(received(), "");
    close(log);
}

TEST(Log, RotatesAsManyFilesAsAreWanted) {
    const std::pair<std::string, std::string> cases[] = {
  // the messages of each file, the newest file first
        {"1",            "78"         },
        {"2",            "78/56"      },
        {"5",            "78/56/34/12"},
        {"0",            "78"         },
        {"-99999999999", "78"         },
        {"99999999999",  "78/56/34/12"},
    };
    for (const auto& [count, expected] : cases) {
        const std::string folder = "/var/log/rotated." + count;
        // A line takes 33 bytes: a file that holds exactly the limit takes one more.
        configure("max_file_size=33 rolling_file_path=" + folder);
        configure("max_file_count=" + count);
        for (int message = 1; message <= 8; ++message) {
            LOG(SYSLOG, "%d", message);
        }
        struct stat status = {};
        EXPECT_EQ(stat(folder.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0744U);
        std::string files;
        for (int index = 0; index < 10; ++index) {
            const std::string lines = takeFile(folder + "/kelm." + std::to_string(index) + ".log");
            if (!lines.empty() && index > 0) files += "/";
            std::copy_if(lines.begin(), lines.end(), std::back_inserter(files), isdigit);
        }
        EXPECT_EQ(files, expected) << count;
    }
}

TEST(Log, FilterTakesTheCategoryOverTheGlobalThreshold) {
    const std::pair<std::string, std::string> cases[] = {
  // the lowest level that passes; 5 always does
        {"",                                                               "a5 b5 c5"},
        {"enabled=True",                                                   "a5 b5 c5"},
        {"enabled=yes",                                                    "a4 b4 c4"},
        {"enabled=true level=info",                                        "a2 b2 c2"},
        {"enabled=true level=quiet",                                       "a5 b5 c5"},
        {"enabled=true level=ERROR category.a=Debug",                      "a1 b4 c4"},
        {"enabled=true category.a=WARN category.a=DEBUG category.c=TRACE", "a3 b4 c0"},
        {"enabled=true enabled=no category.a=TRACE",                       "a5 b5 c5"},
    };
    for (const auto& [words, expected] : cases) {
        configure("file=true filename=/var/log/f " + words);
        for (int round = 0; round < 2; ++round) {  // the second one finds the categories in another order
            std::string passing;
            for (const std::string category : {"a", "b", "c"}) {
                int level = LEVEL_TRACE;
                for (iWrites = 0; iWrites == 0; ++level) {
                    _log(category.c_str(), level, "", 0, "x");
                }
                passing += (passing.empty() ? "" : " ") + category + std::to_string(level - 1);
            }
            EXPECT_EQ(passing, expected) << words;
        }
    }
    configure("category.a=INFO category.b=INFO category.c=INFO" TO_FILE);
    for (const char* const category : {"c", "b", "b", "a"}) {
        _log(category, LEVEL_TRACE, "", 0, "dropped");
        EXPECT_STREQ(categories->name, category);
    }
}

static std::string render() {
    const LogSettings& s = iLogSettings;
    std::ostringstream all;
    for (const int flag : {s.enabled, s.file, s.network, s.standardOutput, s.protocol, s.lineAndFile, s.systemLog}) {
        all << flag;
    }
    all << " " << s.level << " " << s.filename << " " << s.maxFileCount << " " << s.maxFileSize << " "
        << loggable(s.rollingFilePath) << " " << loggable(s.systemLogIdentity);
    for (const LogCategory* category = categories; category; category = category->next) {
        all << " " << category->name << category->level;
    }
    return all.str();
}

TEST(LogSettings, ResetSomeKeepOthersAndStopWhenSwitchedOff) {
    debug_init(nullptr);
    EXPECT_EQ(render(), "1000000 4  5 204800  ");
    configure("x=x filenames=x =x logger.level=TRACE");
    EXPECT_EQ(render(), "0000000 4 zolclient.log 5 204800  ");
    configure(
        "enabled=yes level=warn level=INFO file=yes network=yes stdout=yes protocol=yes lineandfile=yes syslog=yes "
        "syslog.ident=i filename=n category.b=INFO category.=DEBUG max_file_count=-3000000000 "
        "max_file_size=99999999999999999999 rolling_file_path=/r");
    EXPECT_EQ(render(), "1111111 3 n -2147483648 2147483647 /r i b2 1");
    configure("level=TRACE enabled=no stdout=no file=yes category.d=INFO");
    EXPECT_EQ(render(), "0000110 3 zolclient.log -2147483648 2147483647 /r i");
    configure("filename=" + std::string(300, 'n'));
    EXPECT_EQ(iLogSettings.filename, std::string(255, 'n'));
}

TEST(Log, FailingOutputsAreSilentAndErrnoStays) {
    signal(SIGPIPE, SIG_DFL);
    for (const std::string folder : {"/missing/folder", "/etc/passwd", "/var/log/f"}) {
        configure("stdout=true rolling_file_path=" + folder + TO_FILE);
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        close(ends[0]);
        {
            const Redirect toNobody(STDOUT_FILENO, ends[1]);
            errno = 4321;
            LOG(SYSLOG, "%s", folder.c_str());
            EXPECT_EQ(errno, 4321);
        }
        EXPECT_EQ(takeFile(), "SYSLOG " + folder + "\n");
    }
    configure("stdout=false filename=/var/log rolling_file_path=/var/log" TO_FILE);
    LOG(SYSLOG, "x");
    EXPECT_EQ(takeFile("/var/log/kelm.0.log"), "SYSLOG x\n");
    configure(TO_FILE);
    {
        const Redirect toFile(STDERR_FILENO);
        LOG(ERROR, "%ls", L"\x4e00");  // no character of the C locale
    }
    EXPECT_EQ(readFile("/var/log/stream"), "vsnprintf failed due to error 84\n");
    EXPECT_EQ(takeFile(), "");
}

struct LogReload : testing::Test {
    void SetUp() override { ASSERT_EQ(chdir("/media"), 0); }
};

TEST_F(LogReload, IsTakenByTheNextCallEvenIfDroppedOrSwitchedOff) {
    configure("level=DEBUG");
    EXPECT_EQ(signal(SIGHUP, SIG_DFL), SIG_DFL);  // nothing is installed before the log was enabled once
    configure(TO_FILE);
    configure("");
    raise(SIGHUP);
    LOG(ERROR, "no file, so nothing changes");
    writeFile("zolclient.log", settings("level=INFO" TO_FILE));
    LOG(ERROR, "no signal, so nothing changes");
    raise(SIGHUP);
    LOG(INFO, "reloaded before this line");
    EXPECT_EQ(takeFile(), " INFO reloaded before this line\n");
    writeFile("zolclient.log", "");
    raise(SIGHUP);
    LOG(TRACE, "dropped either way");
    LOG(ERROR, "dropped by the reload");
    EXPECT_EQ(takeFile(), "");
}

TEST_F(LogReload, LogsByTheOldSettingsAndStartsNoOther) {
    configure("category.unassigned=INFO" TO_FILE);
    writeFile("zolclient.log", "broken");
    iDuringRead = [] { raise(SIGHUP); };
    raise(SIGHUP);
    LOG(ERROR, "first");
    iDuringRead = nullptr;
    writeFile("zolclient.log", "");
    LOG(ERROR, "dropped by the second reload");
    const std::string parsing = " INFO parsing configuration file: zolclient.log\n";
    EXPECT_EQ(takeFile(), parsing + " WARN syntax error in configuration\nERROR first\n" + parsing);
}

TEST_F(LogReload, LosesAndTearsNoLineOfTwoThreads) {
    configure(TO_FILE);
    const std::string filler(1000, 'x');
    std::atomic<bool> done = false;
    std::array<int, 2> written = {}, read = {};
    std::vector<std::thread> threads;
    for (const unsigned name : {0U, 1U}) {
        threads.emplace_back([&done, &filler, &count = written[name], name] {
            while (!done) {
                LOG(ERROR, "%u %d %s", name, count++, filler.c_str());
            }
        });
    }
    // Each reload sends what follows to the next file, so all files together keep the order of each thread's lines.
    for (int i = 0; i < 20; ++i) {
        const std::string file = "/var/log/" + std::to_string(i);
        writeFile("zolclient.log", settings("filename=" + file + TO_FILE));
        kill(getpid(), SIGHUP);
        EXPECT_TRUE(world::waitFor([&] { return access(file.c_str(), F_OK) == 0; }));
    }
    done = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::string log = takeFile();
    for (int i = 0; i < 20; ++i) {
        log += takeFile("/var/log/" + std::to_string(i));
    }
    std::istringstream all(log);
    for (std::string line; std::getline(all, line);) {
        const unsigned name = line[6] == '1';
        ASSERT_EQ(line, "ERROR " + std::to_string(name) + " " + std::to_string(read[name]++) + " " + filler);
    }
    EXPECT_EQ(read, written);
}
