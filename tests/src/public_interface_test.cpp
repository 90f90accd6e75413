// What the rows of the bus methods say is said elsewhere, too; and the data model's watch where it fails.
#include "src/main/public_interface.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>

#include "pcblib/pcbclient_internal.h"
#include "src/main/cgnat_check.h"
#include "src/main/data_model_watch.h"
#include "src/main/event_writer.h"
#include "tests/world/test_log.h"
#include "tests/world/wrap.h"

using namespace std::string_literals;

TEST(Methods, MatchDescriptionAndPolicy) {
    const std::string policy = world::readFile(ORSM_SOURCE_FOLDER "/dbus/com.corvane.orsm.conf");
    const std::string examples = world::readFile(ORSM_SOURCE_FOLDER "/docs/dbus.md");
    for (const BusService* service : busServices()) {
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
        for (std::istringstream text(textOrEmpty(descriptionOf(service->interface))); std::getline(text, line);) {
            const size_t method = line.find("<method name=\""), in = line.find("\" direction=\"in\"");
            if (method != std::string::npos) rows += line.substr(method + 14, line.rfind('"') - method - 14) + "(";
            if (in != std::string::npos) rows += line[in - 1];
            if (line.find("</method>") != std::string::npos) rows += ") ";
        }
        EXPECT_EQ(rows, described) << service->path;
    }
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
    const std::string tooLong(79, '7');
    for (const auto& [number, line] : {
             std::pair{""s,     "ERROR Empty query number!"                                },
             std::pair{tooLong, "ERROR Query number too long: 7777"                        },
             std::pair{"7"s,    "ERROR Cannot listen to changes in: NeMo.Intf.data.Query.7"}
    }) {
        pcbFunctionCallback("NeMo.Intf.data", "openQuery", ("{\"returns\":\"" + number + "\"}").c_str());
        log.next(line);
    }
    destroyPcbDataModelClient();
}
