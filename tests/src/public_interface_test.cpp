// The bus interface as a whole: what its methods' rows say elsewhere, and what a start that fails leaves; and the data
// model's watch where it fails.
#include "src/main/public_interface.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>

#include "common/msg_bus/message_bus_internal.h"
#include "pcblib/pcbclient_internal.h"
#include "src/dbusinterface/dyndns_service.h"
#include "src/dbusinterface/service_store.h"
#include "src/main/cgnat_check.h"
#include "src/main/data_model_watch.h"
#include "src/main/event_writer.h"
#include "src/orvoservicesinfo/orvoservicesinfo.h"
#include "src/voltarodbus/voltaro_service.h"
#include "tests/world/test_log.h"
#include "tests/world/wrap.h"

using namespace std::string_literals;

TEST(Methods, MatchDescriptionAndPolicy) {
    const std::string policy = world::readFile(ORSM_SOURCE_FOLDER "/dbus/com.corvane.orsm.conf");
    const std::string examples = world::readFile(ORSM_SOURCE_FOLDER "/docs/dbus.md");
    for (const BusService* service : {&KDynDnsService, &KVoltaroService, &KOrvoServicesInfoService}) {
        std::string described;
        for (const Method& method : service->methods) {
            described += std::string(method.name) + "(" + method.arguments + ") ";
            const std::string rule = std::string("\"") + service->path + "\" send_member=\"" + method.name + "\"";
            EXPECT_EQ(policy.find(rule) != std::string::npos, method.isGuarded) << rule;
            std::string example = " com.corvane.orsm "s + service->path + " " + service->interface + " " + method.name;
            example += *method.arguments ? " "s + method.arguments + " " : "\n";
            EXPECT_NE(examples.find(example), std::string::npos) << example;
        }
        // The same from the description: each argument of a method has its type before its direction.
        std::string rows, line;
        for (std::istringstream text(service->description); std::getline(text, line);) {
            const size_t method = line.find("<method name=\""), in = line.find("\" direction=\"in\"");
            if (method != std::string::npos) rows += line.substr(method + 14, line.rfind('"') - method - 14) + "(";
            if (in != std::string::npos) rows += line[in - 1];
            if (line.find("</method>") != std::string::npos) rows += ") ";
        }
        EXPECT_EQ(rows, described) << service->path;
    }
    std::istringstream readme(world::readFile(ORSM_SOURCE_FOLDER "/README.md"));
    for (std::string line; std::getline(readme, line);) {
        EXPECT_TRUE(!line.starts_with("busctl ") || examples.find(line + "\n") != std::string::npos) << line;
    }
}

TEST(PublicInterface, FailedStartReleasesEverything) {
    std::string configuration = world::readFile(ORSM_SOURCE_FOLDER "/tests/world/bus.conf");
    // Enough for the first service and one method of the second.
    const std::string rules = std::to_string(KDynDnsService.methods.size() + 1);
    configuration.replace(configuration.find("</busconfig>"), std::string::npos,
                          "<limit name=\"max_match_rules_per_connection\">" + rules + "</limit></busconfig>");
    world::writeFile("/var/run/bus.conf", configuration);
    const auto dbus = world::startDbusDaemon("/var/run/bus.conf"), bus = world::startPcbBus();
    event_base* const base = event_base_new();
    EXPECT_FALSE(enableDbusPublicInterface(base));
    EXPECT_EQ(event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED), 0);
    for (const char* path : {"/dyndns", "/voltaro"}) {
        void* object = nullptr;
        const OwnedConnection shared(dbus_bus_get(DBUS_BUS_SESSION, nullptr));
        dbus_connection_get_object_path_data(shared.get(), path, &object);
        EXPECT_EQ(object, nullptr) << path;
    }
    EXPECT_EQ(iBusPcbClient, nullptr);
    event_base_free(base);
}

static int iUntilRefused = 0,
           iReleased = 0;  // a request is not sent when the first comes to 0; those that were released

WRAP(bool, pcb_sendRequest, pcb_t* pcb, peer_info_t* peer, request_t* request) {
    return --iUntilRefused != 0 && __real_pcb_sendRequest(pcb, peer, request);
}
WRAP(void, request_destroy, request_t* request) {
    ++iReleased;
    __real_request_destroy(request);
}

TEST(DataModelWatch, EveryRequestMustBeSentAndALostCheckIsForgotten) {
    world::LogReader log = world::startLog();
    const auto bus = world::startPcbBus();
    int events[2];
    ASSERT_TRUE(createPcbDataModelClient() && pipe(events) == 0);
    iPipeForPcbChanges = events;
    setPcbRequestLostCallback(pcbRequestLost);
    for (int refused = 1; refused <= 7; ++refused) {
        iUntilRefused = refused;
        const bool watches = watchParameters(), queries = startWanQuery();
        EXPECT_EQ(watches && queries, refused == 7) << refused;
        releaseParameterWatch();
        releaseCgNatCheck();
    }
    iReleased = 0;
    for (const int refused : {1, 0, 0}) {
        iUntilRefused = refused;
        checkCgNatAgain();
        drainPendingWork();
        if (!refused) pcbFunctionCallback("NeMo.Intf.data", "hasFlag", R"({"returns":"true"})");
        drainPendingWork();
    }
    EXPECT_EQ(iReleased, 3);
    EXPECT_EQ(log.count("still pending"), 0U);
    iUntilRefused = 1;
    const std::pair<std::string, const char*> numbers[] = {
        {"null",                "ERROR Empty query number!"},
        {"\"" + std::string(79, '7') + "\"",                 "ERROR Query number too long: 7777"},
        {"\"7\"",                     "ERROR Cannot listen to changes in: NeMo"                                         },
    };
    for (const auto& [number, line] : numbers) {
        pcbFunctionCallback("NeMo.Intf.data", "openQuery", ("{\"returns\":" + number + "}").c_str());
        log.next(line);
    }
    destroyPcbDataModelClient();
}
