// The bus interface as a whole: what its methods' rows say is said elsewhere, too.
#include <gtest/gtest.h>

#include <sstream>

#include "src/dbusinterface/dyndns_service.h"
#include "src/orvoservicesinfo/orvoservicesinfo.h"
#include "src/voltarodbus/voltaro_service.h"
#include "tests/world/world.h"

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
}
