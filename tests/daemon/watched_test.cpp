// Every watched parameter on its way from the data model to the bus thread, in the running daemon.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/daemon/daemon.h"

using namespace world;

TEST(Watched, EveryParameterReachesTheBusThreadAndNoOtherDoes) {
    Gateway gateway;
    gateway.start();
    const std::tuple<const char*, const char*, std::string, const char*> cases[] = {
        {"OrvoService.HomeAutomation", "ApplicationServer",   "https://a",      "Application server URL changed: "},
        {"OrvoService.HomeAutomation", "CommunicationServer", std::string(1023, 'x'),
         "Communication server URL changed: "},
        {"NMC.HomeAutomation",                            "HA-ID",                              "HA-1",            "HA-ID value: "          },
        {"NMC.HomeAutomation",                            "Enable",                              "false",           "HA enable: "},
        {"DNS.Server",                            "Status",                                      "0",                   "DNS server status: "              },
        {"OrvoService.DynDNS",                            "Enable",                              "1",           "DynDNS enable: "},
    };
    for (const auto& [object, parameter, value, line] : cases) {
        gateway.set(object, parameter, value);
        gateway.log.next(line + value);
        if (strcmp(parameter, "ApplicationServer") == 0) gateway.log.next("saved to OrvoService");
        if (strcmp(object, "NMC.HomeAutomation") == 0) gateway.log.next("Sync dyndns timer started");
    }
    gateway.set("OrvoService.HomeAutomation", "CommunicationServer", std::string(1024, 'x'));
    gateway.log.next("ERROR Parameter value too long: ");
    gateway.set("OrvoService.DynDNS", "HostName", "unwatched");
    gateway.settle();
    EXPECT_EQ(gateway.log.count("unwatched"), 0U);
    EXPECT_EQ(gateway.log.count("Sync dyndns timer started"), 3U) << "two changes, and the unfinished one of the start";
    EXPECT_EQ(gateway.end(), 0);
}

// What makes the daemon ask for carrier-grade NAT again, and what it makes of the answer.
TEST(Watched, CgNatIsCheckedAgainAndToldWhenItChanged) {
    Gateway gateway;
    gateway.start();
    EXPECT_TRUE(waitFor([&] { return gateway.log.count("Listening to changes in: NeMo.Intf.data.Query.1") == 1; }));
    const std::tuple<const char*, const char*, const char*, const char*> cases[] = {
        {"cgnat", "DNS.Server",     "Status",    "CG-NAT status: true" },
        {"",      "NeMo.Intf.data", "Addresses", "CG-NAT status: false"},
    };
    for (const auto& [flags, object, parameter, line] : cases) {
        gateway.set("NeMo.Intf.data", "Flags", flags);
        gateway.set(object, parameter, "1");
        gateway.log.next(line);
        gateway.log.next("Synchronizing DynDNS in reaction to CG-NAT change");
        gateway.log.next("Sync dyndns timer started");
    }
    gateway.set("NeMo.Intf.data", "Addresses", "true");  // the same answer again is not told
    gateway.log.next("RESULT={\"returns\":\"false\"}");
    gateway.set("NeMo.Intf.data", "Flags", "cgnat");
    gateway.set("NeMo.Intf.data", "Addresses", "10.0.0.1");  // no boolean: not asked
    gateway.set("Simulation.Functions", "Delay", "1000");
    gateway.set("DNS.Server", "Status", "true");
    gateway.set("DNS.Server", "Status", "1");
    gateway.log.next("Previous CG-NAT check is still pending!");
    gateway.log.next("CG-NAT status: true");
    EXPECT_EQ(gateway.log.count("CG-NAT status: "), 4U);
    EXPECT_EQ(gateway.end(), 0);
}
