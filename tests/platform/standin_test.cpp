// The stand-in's command line.
#include "tests/platform/client.h"

TEST_F(Platform, CtlPrintsValuesOrOneErrorLine) {
    const std::tuple<const char*, int, const char*> cases[] = {
        {"set NeMo.Intf.data Flags up,a=b",      0, ""                                                             },
        {"--socket /var/run/pcb_sys ls DNS",     0, "DNS.Server.Status=true\n"                                     },
        {"call NeMo.Intf.data hasFlag flag=a=b", 0, "{\"returns\":\"true\"}\n"                                     },
        {"get DNS.Server name",                  1, "pcb-ctl: DNS.Server.name: unknown parameter\n"                },
        {"set DNS.Server Status 7",              1, "pcb-ctl: DNS.Server.Status: the value does not fit the type\n"},
        {"--socket /var/run/nobody ls",          1, "pcb-ctl: /var/run/nobody: cannot connect\n"                   },
    };
    for (const auto& [words, status, expected] : cases) {
        std::string output;
        EXPECT_EQ(world::run({"sh", "-c", "exec " + world::binary("pcb-ctl") + " " + words}, &output), status) << words;
        EXPECT_EQ(output, expected);
    }
}
