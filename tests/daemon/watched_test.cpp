// Every watched parameter on its way from the data model to the bus thread, in the running daemon.
#include <gtest/gtest.h>

#include "tests/daemon/daemon.h"

using namespace std::string_literals;
using namespace world;

TEST(Watched, EveryWatchedParameterReachesTheBusThread) {
    Gateway gateway;
    gateway.start();
    gateway.settle();
    // The first values: as they were read, and as they reach the bus thread.
    for (const char* line :
         {"DEBUG Application server URL init value: ", "DEBUG Communication server URL init value: ",
          " INFO HA-ID init value: ", " INFO HA enabled init value: true", " INFO DNS Server status init value: true",
          " INFO DynDNS enabled init value: false", " INFO Application server URL init value: ", " INFO HA-ID value: ",
          " INFO HA enable: true", " INFO DNS server status: true", " INFO DynDNS enable: false"}) {
        EXPECT_EQ(gateway.log.count(line), 1U) << line;
    }
    EXPECT_EQ(gateway.log.count(" init value: "), 7U) << "a watched parameter without its lines here";
    const auto reaches = [&](const char* object, const char* parameter, const std::string& value, const char* line,
                             const char* effect = "") {
        gateway.set(object, parameter, value);
        for (const std::string& own :
             {"DEBUG Change in observed PCB parameter"s, "DEBUG OBJECT="s + object, "DEBUG PARAMETER="s + parameter,
              "DEBUG OLD_VALUE="s, "DEBUG NEW_VALUE=" + value, line + value}) {
            gateway.log.next(own);
        }
        if (*effect) gateway.log.next(effect);
    };
    const std::string longest(1023, 'x');
    reaches("OrvoService.HomeAutomation", "ApplicationServer", "https://a", "server URL changed: ", " INFO /media/");
    reaches("OrvoService.HomeAutomation", "CommunicationServer", longest, "server URL changed: ", " INFO /media/");
    reaches("NMC.HomeAutomation", "HA-ID", "HA-1", "HA-ID value: ", " INFO Sync dyndns timer started");
    reaches("NMC.HomeAutomation", "Enable", "false", "HA enable: ", " INFO Synchronizing DynDNS in reaction to HA e");
    reaches("DNS.Server", "Status", "0", "DNS server status: ");
    reaches("OrvoService.DynDNS", "Enable", "1", "DynDNS enable: ", " INFO No possibility to setup dyn dns on server");
    gateway.set("OrvoService.HomeAutomation", "CommunicationServer", std::string(1024, 'x'));
    gateway.log.next("ERROR Parameter value too long: ");
    gateway.set("OrvoService.DynDNS", "HostName", "unwatched");
    gateway.settle();
    EXPECT_EQ(gateway.log.count("unwatched"), 0U);
    EXPECT_EQ(gateway.log.count("Sync dyndns timer started"), 3U) << "two changes, and the unfinished one of the start";
    EXPECT_EQ(gateway.log.count("FUNCTION=hasFlag"), 1U) << "no other parameter starts a check";
    EXPECT_EQ(gateway.log.count(" ERROR "), 2U) << "nothing to load, and the value too long: " << gateway.log.content();
    EXPECT_EQ(gateway.end(), 0);
}

// What makes the daemon ask for carrier-grade NAT again, and what it makes of the answer.
TEST(Watched, CgNatIsCheckedAgainAndChangesAreReported) {
    Gateway gateway;
    gateway.set("DNS.Server", "Status", "0");
    gateway.launch();
    gateway.log.next("DEBUG QueryPath=NeMo.Intf.data.Query.1");
    gateway.log.next(" INFO Listening to changes in: NeMo.Intf.data.Query.1");
    gateway.settle();
    EXPECT_EQ(gateway.log.count("FUNCTION=hasFlag"), 0U) << "asked before there is a DNS server";
    gateway.set("DNS.Server", "Status", "1");
    gateway.log.next("CG-NAT status: false");
    gateway.set("DNS.Server", "Status", "0");
    gateway.set("NMC.HomeAutomation", "HA-ID", "HA-1");
    const std::tuple<const char*, const char*, const char*, const char*> cases[] = {
        {"cgnat", "DNS.Server",     "Status",    "CG-NAT status: true" },
        {"",      "NeMo.Intf.data", "Addresses", "CG-NAT status: false"},
    };
    for (const auto& [flags, object, parameter, line] : cases) {
        gateway.set("NeMo.Intf.data", "Flags", flags);
        gateway.set(object, parameter, "1");
        gateway.log.next(line);
        gateway.log.next(" INFO Synchronizing DynDNS in reaction to CG-NAT change");
        gateway.log.next(" INFO Pending event for DynDns sync timer has to be cancelled");
        gateway.log.next("Sync dyndns timer started");
    }
    gateway.set("NeMo.Intf.data", "Addresses", "true");  // the same answer again is not told
    gateway.log.next("DEBUG OBJECT=NeMo.Intf.data");
    gateway.log.next("DEBUG FUNCTION=hasFlag");
    gateway.log.next("DEBUG RESULT={\"returns\":\"false\"}");
    gateway.set("NeMo.Intf.data", "Flags", "cgnat");
    gateway.set("NeMo.Intf.data", "Addresses", "10.0.0.1");  // no boolean: not asked
    gateway.set("Simulation.Functions", "Delay", "60000");
    gateway.set("DNS.Server", "Status", "true");
    gateway.set("DNS.Server", "Status", "1");
    gateway.log.next(" WARN Previous CG-NAT check is still pending!");
    gateway.set("Simulation.Functions", "Delay", "0");
    gateway.log.next("CG-NAT status: true");
    EXPECT_EQ(gateway.log.count("CG-NAT status: "), 4U);
    gateway.set("OrvoService.DynDNS", "Enable", "true");
    gateway.log.next("No possibility to setup dyn dns on server");
    gateway.set("DNS.Server", "Status", "true");
    gateway.log.next("FUNCTION=hasFlag");
    EXPECT_EQ(gateway.log.count("FUNCTION=hasFlag"), 6U) << "one at a time";
    EXPECT_EQ(gateway.end(), 0);
}
