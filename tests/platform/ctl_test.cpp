// pcb-ctl's words, what it prints and its exit statuses.
#include "tests/platform/client.h"

static Items command(const std::string& words) {
    return {"sh", "-c", "exec " + world::binary("pcb-ctl") + " " + words};
}

TEST_F(Platform, CtlPrintsValuesOrOneClearLine) {
    static constexpr char KUsage[] =
        "usage: pcb-ctl [--socket PATH] get OBJECT PARAMETER | set OBJECT PARAMETER VALUE | "
        "ls [OBJECT] | watch OBJECT | call OBJECT FUNCTION [NAME=VALUE ...]\n";
    client.set("Simulation.Functions", "Failing", "closeQuery");
    const std::tuple<const char*, int, const char*> cases[] = {
        {"set NeMo.Intf.data Flags up,a=b",      0, ""                                                         },
        {"set DNS.Server Status 0",              0, ""                                                         },
        {"--socket /var/run/pcb_sys ls DNS",     0, "DNS.Server.Status=0\n"                                    },
        {"call NeMo.Intf.data hasFlag flag=a=b", 0, "{\"returns\":\"true\"}\n"                                 },
        {"call NeMo.Intf.data hasFlag flag=u",   0, "{\"returns\":\"false\"}\n"                                },
        {"call NeMo.Intf.data closeQuery",       1, "pcb-ctl: NeMo.Intf.data.closeQuery: the function failed\n"},
        {"call DNS.Server fly",                  1, "pcb-ctl: DNS.Server.fly: unknown function\n"              },
        {"get DNS.Server name",                  1, "pcb-ctl: DNS.Server.name: unknown parameter\n"            },
        {"get DNS.Server Status",                0, "0\n"                                                      },
        {"--socket /var/run/nobody ls",          1, "pcb-ctl: /var/run/nobody: cannot connect\n"               },
        {"",                                     1, KUsage                                                     },
    };
    for (const auto& [words, status, expected] : cases) {
        std::string output;
        EXPECT_EQ(world::run(command(words), &output), status) << words;
        EXPECT_EQ(output, expected);
    }
}

TEST_F(Platform, CtlWatchPrintsEachChangeAndSaysHowItEnded) {
    world::Process watch(command("watch OrvoService"));
    const std::string watching = "watching OrvoService\n", change = "OrvoService.DynDNS HostName  -> box.example.net\n";
    ASSERT_TRUE(world::waitFor([&] { return watch.output() == watching; }));
    client.set(KDynDns, "HostName", "box.example.net");
    ASSERT_TRUE(world::waitFor([&] { return watch.output() == watching + change; }));
    for (const int signalNumber : {SIGINT, SIGTERM}) {
        world::Process ended(command("watch OrvoService"));
        ASSERT_TRUE(world::waitFor([&] { return ended.output() == watching; }));
        ended.send(signalNumber);
        EXPECT_EQ(ended.wait(), 0);
    }
    bus->send(SIGTERM);
    EXPECT_EQ(watch.wait(), 1);
    EXPECT_EQ(watch.output(), watching + change + "pcb-ctl: OrvoService: connection lost\n");
}
