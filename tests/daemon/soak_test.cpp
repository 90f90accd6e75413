// Years of work in a row: what the daemon holds must not grow. A slice by default; ORSM_SWEEP=100 (percent) makes it
// 100 000 HTTPS requests, 1 000 000 bus calls and 200 000 notifications.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "tests/daemon/daemon.h"
#include "tests/platform/client.h"
#include "tests/world/bus_client.h"

using namespace world;

static ptrdiff_t descriptors(const std::string& proc) {
    return std::distance(std::filesystem::directory_iterator(proc + "/fd"), {});
}

// A figure of the process in KiB, from a file with a row for each.
static double kibibytes(const std::string& path, const std::string& row) {
    const std::string rows = readFile(path);
    return std::stod(rows.substr(rows.find(row) + row.size()));
}

TEST(Soak, MemoryAndDescriptorsDoNotGrow) {
    constexpr int KSteps = 50, KChangesAtOnce = 32;
    const char* const percent = getenv("ORSM_SWEEP");
    const double part = (percent ? std::stod(percent) : 4) / 100 / KSteps;
    const int requests = static_cast<int>(100'000 * part), calls = static_cast<int>(1'000'000 * part),
              changes = static_cast<int>(200'000 * part);
    Gateway gateway;
    gateway.launch();
    const std::string proc = "/proc/" + std::to_string(gateway.daemon->pid());
    gateway.set("OrvoService.GatewayClient", "ConnectionMode", "on");
    ASSERT_TRUE(waitFor([&] { return gateway.get("OrvoService.GatewayClient", "ConnectionStatus") == "true"; }));
    BusClient client;
    ASSERT_TRUE(gateway.waitFor([&] { return client.call("/orvoservicesinfo", "", "Get") == R"({"status":"OK"})"; }));
    // The longest message that the bus carries, and an answer that takes fifty times its size when it is parsed.
    const std::string longName(31'000'000, 'a');
    std::string numbers = "[0";
    while (numbers.size() < 1'000'000) {
        numbers += ",0";
    }
    int failed = 0;
    ptrdiff_t before = 0;
    std::vector<double> memory;
    for (int step = 0; step < KSteps; ++step) {
        failed += !client.callMany(
            requests, 1, [](int) { return BusClient::message("/dyndns", "", "IsNameTaken", {"office"}); },
            [&](DBusMessage* reply) { failed += BusClient::textOf(reply) != R"({"status":"OK","result":false})"; });
        failed += !client.callMany(
            calls, 64,
            [](int number) { return BusClient::message("/dyndns", "", number % 2 ? "IsEnabled" : "GetName", {}); },
            [&](DBusMessage* reply) { failed += BusClient::textOf(reply).find("OK") == std::string::npos; });
        // Few at a time: what waits for the bus thread is memory too.
        const std::string prefix = std::to_string(step) + "-";
        for (int first = 1; first <= changes; first += KChangesAtOnce) {
            const int last = std::min(changes, first + KChangesAtOnce - 1);
            writeFile(KDaemonLog, "");
            setOften("OrvoService.HomeAutomation", "CommunicationServer", first, last, prefix);
            LogReader(KDaemonLog).next("Communication server URL changed: " + prefix + std::to_string(last));
        }
        if (step == 0 || step == KSteps / 2) {
            failed += client.call("/dyndns", "", "IsNameTaken", {longName}).find("INVALID") == std::string::npos;
            gateway.cloud->answer("verify", 200, numbers + "]");
            failed += client.call("/dyndns", "", "IsNameTaken", {"office"}).find("INTERNAL") == std::string::npos;
        }
        memory.push_back(kibibytes(proc + "/smaps_rollup", "Private_Dirty:"));
        if (step == KSteps / 10) before = descriptors(proc);
    }
    // Compares the lowest values at both ends: memory that a step uses for a while does not count.
    const auto lowest = [&](int from) { return *std::min_element(&memory[from], &memory[from] + KSteps / 5); };
    const double grown = lowest(KSteps * 4 / 5) - lowest(KSteps / 10);
    printf("figure: soak: %d requests, %d calls, %d notifications: %+.0f KiB to %.0f\n", requests * KSteps,
           calls * KSteps, changes * KSteps, grown, memory.back());
    printf("figure: soak: at most %.0f MiB resident, with a message of 31 MB and an answer of 1 MB of small numbers\n",
           kibibytes(proc + "/status", "VmHWM:") / 1024);
    EXPECT_EQ(failed, 0);
    EXPECT_LE(memory.back(), 4096) << "KiB: long messages and answers leave their memory";
    EXPECT_LE(grown, 64) << "KiB: " << testing::PrintToString(memory);
    EXPECT_EQ(descriptors(proc), before);
    EXPECT_EQ(gateway.end(), 0);
}
