// Saving objects to files and loading them again.
#include <sys/stat.h>

#include <filesystem>

#include "tests/platform/client.h"

static constexpr char KFile[] = "/media/orvoservice.odl";

static bool save(const Client& client, const char* path, int32_t depth = -1) {
    return datamodel_save(pcb_client_get_object(client.peer, path, 0), depth, KFile, DATAMODEL_TEXT);
}

static bool load(const Client& client, const char* path = "OrvoService") {
    return datamodel_load(object_datamodel(pcb_client_get_object(client.peer, path, 0)), KFile, DATAMODEL_TEXT);
}

static std::string everything(const Client& client) {
    static constexpr char KAll[] = "/var/run/all.odl";
    datamodel_save(pcb_client_get_object(client.peer, "OrvoService", 0), -1, KAll, DATAMODEL_TEXT);
    return world::readFile(KAll);
}

TEST(PlatformStore, WritesTheTreeAsADefinition) {
    const auto bus = world::startPcbBus();
    const Client client;
    world::writeFile("/media/orvoservice.odl.new", "left over");
    client.set("OrvoService.DynDNS", "HostName", "a \"b\"\\\n\x80");
    ASSERT_TRUE(save(client, "OrvoService"));
    EXPECT_EQ(world::readFile(KFile),
              "object OrvoService {\n"
              "    object DynDNS {\n"
              "        bool Enable = \"false\";\n"
              "        string HostName = \"a \\\"b\\\"\\\\\\n\x80\";\n"
              "        bool SyncNotFinished = \"false\";\n"
              "    }\n"
              "    object Voltaro {\n"
              "        bool Enable = \"false\";\n"
              "    }\n"
              "    object GatewayClient {\n"
              "        read-only bool ConnectionStatus = \"false\";\n"
              "        string ConnectionMode = \"ondemand\";\n"
              "    }\n"
              "    object HomeAutomation {\n"
              "        string ApplicationServer = \"\";\n"
              "        string CommunicationServer = \"\";\n"
              "    }\n"
              "}\n");
    EXPECT_FALSE(std::filesystem::exists("/media/orvoservice.odl.new"));
    ASSERT_TRUE(save(client, "NMC.HomeAutomation", 0));
    EXPECT_EQ(world::readFile(KFile),
              "object NMC {\n    object HomeAutomation {\n        read-only string HA-ID = \"\";\n"
              "        bool Enable = \"true\";\n    }\n}\n");
}

TEST(PlatformStore, ASavedTreeComesBackOverARestartAndIntoARunningBus) {
    std::string value;
    for (int byte = 1; byte < 256; ++byte) {
        value += static_cast<char>(byte);
    }
    {
        const auto bus = world::startPcbBus();
        const Client client("/var/run/pcb_sys", true);
        client.set("OrvoService.DynDNS", "HostName", value);
        client.set("OrvoService.GatewayClient", "ConnectionStatus", "true");
        ASSERT_TRUE(save(client, "OrvoService"));
        client.set("OrvoService.DynDNS", "HostName", "other");
        client.set("OrvoService.GatewayClient", "ConnectionStatus", "false");
        ASSERT_TRUE(load(client));
        EXPECT_TRUE(client.get("OrvoService.DynDNS", "HostName") == value);
        EXPECT_EQ(client.get("OrvoService.GatewayClient", "ConnectionStatus"), "false") << "a live value is kept";
        client.set("OrvoService.DynDNS", "HostName", "other");
        ASSERT_TRUE(load(client, "NMC")) << "what is not held is passed over";
        EXPECT_EQ(client.get("OrvoService.DynDNS", "HostName"), value);
    }
    const auto bus = world::startPcbBus(KFile);
    EXPECT_TRUE(Client().get("OrvoService.DynDNS", "HostName") == value);
}

TEST(PlatformStore, ADamagedFileChangesNothingAndNamesItsLine) {
    const auto bus = world::startPcbBus();
    const Client client;
    const std::string before = everything(client);
    const std::string good = "object OrvoService {\n    object DynDNS {\n        bool Enable = \"true\";\n";
    const std::string tooLong = "string HostName = \"" + std::string(size_t{1024} * 1024 + 1, 'x');
    const std::string zero(1, '\0');
    struct Case {
        std::string text;
        const char* message;
    };
    for (const Case& c : {
             Case{"",                                     "line 1: an object is missing"             },
             Case{"\n \n",                                "line 3: an object is missing"             },
             Case{good,                                   "line 3: '}' is missing"                   },
             Case{good + "}\n",                           "line 4: '}' is missing"                   },
             Case{good + "}}}",                           "line 4: an object is missing"             },
             Case{good + "}}\nobject OrvoService {}",     "line 5: the object stands here twice"     },
             Case{good + "bool Enable = \"1\";}}",        "line 4: the parameter stands here twice"  },
             Case{good + "string HostName = \"a",         "line 4: the value is not closed"          },
             Case{good + "string HostName = \"a\n\";}}",  "line 4: the value is not closed"          },
             Case{good + "string HostName = \"a\\",       "line 4: the value is not closed"          },
             Case{good + "string HostName = \"a\\t\";}}", "line 4: unknown escape in the value"      },
             Case{good + "string HostName = a;}}",        "line 4: a value in quotes is missing"     },
             Case{good + "string HostName = \"a\"\n}}",   "line 4: ';' is missing"                   },
             Case{good + "string HostName\n= \"a\"\n}}",  "line 5: ';' is missing"                   },
             Case{good + "bool X = \"maybe\";}}",         "line 4: the value is no boolean"          },
             Case{good + "\n\xFF}}",                      "line 5: neither an object nor a parameter"},
             Case{good + zero,                            "line 4: neither an object nor a parameter"},
             Case{good + tooLong,                         "line 4: the value is longer than 1 MiB"   },
    }) {
        SCOPED_TRACE(c.text.substr(0, 200));
        world::writeFile(KFile, c.text);
        testing::internal::CaptureStderr();
        EXPECT_FALSE(load(client));
        EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string(KFile) + ": " + c.message + "\n");
        EXPECT_EQ(pcb_error, static_cast<uint32_t>(PCB_ERROR_DAMAGED_FILE));
    }
    // Nothing is set when a later value does not fit its parameter.
    world::writeFile(KFile, good + "string SyncNotFinished = \"x\";}}");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(load(client));
    EXPECT_EQ(pcb_error, static_cast<uint32_t>(PCB_ERROR_WRONG_TYPE));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              std::string(KFile) + ": line 4: the value does not fit the type of OrvoService.DynDNS.SyncNotFinished\n");
    std::string deep;
    while (deep.size() < 1000) {
        deep += "object a { ";
    }
    world::writeFile(KFile, deep);
    EXPECT_FALSE(load(client));
    EXPECT_EQ(everything(client), before);
}

TEST(PlatformStore, AFailedSaveLeavesTheOldFileAndNoOther) {
    const auto bus = world::startPcbBus();
    const Client client;
    EXPECT_FALSE(load(client));
    EXPECT_EQ(pcb_error, static_cast<uint32_t>(PCB_ERROR_CANNOT_READ_FILE));
    std::filesystem::create_directories(std::string(KFile) + "/not empty");
    EXPECT_FALSE(save(client, "OrvoService"));
    EXPECT_EQ(pcb_error, static_cast<uint32_t>(PCB_ERROR_CANNOT_WRITE_FILE));
    EXPECT_FALSE(std::filesystem::exists(std::string(KFile) + ".new"));
    EXPECT_TRUE(std::filesystem::exists(std::string(KFile) + "/not empty"));
    EXPECT_FALSE(load(client)) << "a folder is no file";
}
