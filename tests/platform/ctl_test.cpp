// pcb-ctl's words, what it prints and its exit statuses.
#include "tests/platform/client.h"

static std::vector<std::string> command(std::vector<std::string> words) {
    words.insert(words.begin(), world::binary("pcb-ctl"));
    return words;
}

TEST(PlatformCtl, PrintsValuesOrOneClearLine) {
    static constexpr char KUsage[] =
        "usage: pcb-ctl [--socket PATH] get OBJECT PARAMETER | set OBJECT PARAMETER VALUE | "
        "ls [OBJECT] | watch OBJECT | call OBJECT FUNCTION [NAME=VALUE ...]\n";
    const auto bus = world::startPcbBus();
    struct Case {
        std::vector<std::string> words;
        int status;
        std::string output;
    };
    for (const Case& c : {
             Case{{"get", "NMC.HomeAutomation", "Enable"},           0, "true\n"                                                         },
             Case{{"set", "NMC.HomeAutomation", "HA-ID", "gw 1"},    0, ""                                                               },
             Case{{"--socket", "/var/run/pcb_sys", "ls", "NMC"},
                  0,                                                    "NMC.HomeAutomation.HA-ID=gw 1\nNMC.HomeAutomation.Enable=true\n"},
             Case{{"call", "NeMo.Intf.data", "hasFlag", "flag=a=b"}, 0, "{\"returns\":\"false\"}\n"                                      },
             Case{{"call", "NeMo.Intf.data", "closeQuery"},          0, "{\"returns\":null}\n"                                           },
             Case{{"get", "Nobody", "Enable"},                       1, "pcb-ctl: Nobody.Enable: unknown object\n"                       },
             Case{{"get", "DNS.Server", "Name"},                     1, "pcb-ctl: DNS.Server.Name: unknown parameter\n"                  },
             Case{{"set", "DNS.Server", "Status", "up"},
                  1,                                                    "pcb-ctl: DNS.Server.Status: the value does not fit the type\n"  },
             Case{{"ls", "Nobody"},                                  1, "pcb-ctl: Nobody: unknown object\n"                              },
             Case{{"watch", "Nobody"},                               1, "pcb-ctl: Nobody: unknown object\n"                              },
             Case{{"call", "DNS.Server", "fly"},                     1, "pcb-ctl: DNS.Server.fly: unknown function\n"                    },
             Case{{"call", "NeMo.Intf.data", "hasFlag", "flag"},     1, "pcb-ctl: flag: an argument is NAME=VALUE\n"                     },
             Case{{"--socket", "/var/run/nobody", "ls"},             1, "pcb-ctl: /var/run/nobody: cannot connect\n"                     },
             Case{{},                                                1, KUsage                                                           },
             Case{{"fly"},                                           1, KUsage                                                           },
             Case{{"get", "NMC.HomeAutomation"},                     1, KUsage                                                           },
             Case{{"get", "NMC.HomeAutomation", "Enable", "more"},   1, KUsage                                                           },
             Case{{"--socket"},                                      1, KUsage                                                           },
    }) {
        SCOPED_TRACE(testing::PrintToString(c.words));
        std::string output;
        EXPECT_EQ(world::run(command(c.words), &output), c.status);
        EXPECT_EQ(output, c.output);
    }
}

TEST(PlatformCtl, WatchPrintsEachChangeAndSaysHowItEnded) {
    const auto bus = world::startPcbBus();
    const Client client;
    world::Process watch(command({"watch", "OrvoService"}));
    world::Process other(command({"watch", "OrvoService"}));
    const std::string watching = "watching OrvoService\n";
    ASSERT_TRUE(world::waitFor([&] { return watch.output() == watching && other.output() == watching; }));
    client.set("OrvoService.DynDNS", "HostName", "box.example.net");
    client.set("OrvoService.DynDNS", "HostName", "");
    const std::string changes = watching + "OrvoService.DynDNS HostName  -> box.example.net\n" +
                                "OrvoService.DynDNS HostName box.example.net -> \n";
    ASSERT_TRUE(world::waitFor([&] { return watch.output() == changes && other.output() == changes; }));
    watch.send(SIGINT);
    EXPECT_EQ(watch.wait(), 0);
    bus->send(SIGTERM);
    EXPECT_EQ(other.wait(), 1);
    EXPECT_EQ(other.output(), changes + "pcb-ctl: OrvoService: connection lost\n");
}
