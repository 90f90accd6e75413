// The stand-in for the platform's library where it promises more than a platform does, and pcb-ctl.
#include "tests/platform/client.h"

using namespace std::string_literals;

TEST_F(Platform, DamagedFileChangesNothingAndNamesItsLine) {
    const std::string good = "object OrvoService {\n    object DynDNS {\n        bool Enable = \"true\";\n";
    const std::pair<std::string, const char*> cases[] = {
        {"}\n",                   "line 4: '}' is missing\n"                   },
        {"bool X = \"maybe\";}}", "line 4: the value is no boolean\n"          },
        {"\0"s,                   "line 4: neither an object nor a parameter\n"},
    };
    object_t* const object = pcb_client_get_object(client.peer, "OrvoService", 0);
    for (const auto& [rest, message] : cases) {
        world::writeFile("/media/o.odl", good + rest);
        testing::internal::CaptureStderr();
        EXPECT_FALSE(datamodel_load(object_datamodel(object), "/media/o.odl", DATAMODEL_TEXT));
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "/media/o.odl: "s + message);
        EXPECT_EQ(client.get(KDynDns, "Enable"), "false");
    }
}

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
