// The writer's side of the event pipe: what the data model reports, and the records that leave for the bus thread.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "src/dbusinterface/event_record.h"
#include "src/main/data_model_watch.h"
#include "tests/world/test_log.h"

class Watch : public testing::Test {
  protected:
    Watch() {
        EXPECT_EQ(pipe(ends_), 0);
        fcntl(ends_[0], F_SETFL, O_NONBLOCK);
        iPipeForPcbChanges = ends_;
    }

    // The next record as "code:value"; empty when there is none.
    std::string next() {
        EventRecord record = {};
        const ssize_t count = read(ends_[0], &record, sizeof record);
        if (count < 0) return "";
        EXPECT_EQ(count, 1028);
        const std::string value(record.value);
        EXPECT_EQ(std::string(record.value, sizeof record.value).find_first_not_of('\0', value.size()), value.npos);
        return std::to_string(record.code) + ":" + value;
    }

    int ends_[2];
    world::LogReader log_ = world::startLog();
};

// clang-format off

TEST_F(Watch, ReportsEveryWatchedChangeAndNoOther) {
    const std::string longest(1023, 'x');
    const std::array<std::string, 4> cases[] = {
        {"OrvoService.HomeAutomation", "ApplicationServer", "new", "1:new"},
        {"OrvoService.HomeAutomation", "CommunicationServer", "new", "3:new"},
        {"NMC.HomeAutomation", "HA-ID", "", "5:"},
        {"NMC.HomeAutomation", "HA-ID", longest, "5:" + longest},
        {"NMC.HomeAutomation", "HA-ID", longest + "y", ""},
        {"NMC.HomeAutomation", "Enable", "new", "7:new"},
        {"DNS.Server", "Status", "new", "9:new"},
        {"OrvoService.DynDNS", "Enable", "new", "14:new"},
        {"OrvoService.DynDNS", "HostName", "new", ""},
        {"NMC.HomeAutomation", "ha-id", "new", ""},
        {"NeMo.Intf.data.Query.1", "ResultString", "new", ""},
    };
    for (const auto& [object, parameter, value, record] : cases) {
        SCOPED_TRACE(object + " " + parameter);
        pcbParamChanged(object.c_str(), parameter.c_str(), "old", value.c_str());
        EXPECT_EQ(next(), record);
        EXPECT_EQ(next(), "");
    }
    log_.next("Parameter value too long: " + longest + "y");
}

TEST_F(Watch, ReportsTheFirstCgNatResultAndThenOnlyOtherTruths) {
    const std::array<const char*, 3> cases[] = {
        {"NeMo.Intf.data", "{}", ""},
        {"NeMo.Intf.data", R"({"returns":true})", ""},
        {"NeMo.Intf.data", R"({"returns":"false"})", "11:false"},
        {"NeMo.Intf.data", R"({"returns":"0"})", ""},
        {"NeMo.Intf.data", R"({"returns":"true"})", "12:true"},
        {"NeMo.Intf.data", R"({"returns":"1"})", ""},
        {"NeMo.Intf.data", R"({"Returns":"True"})", "12:True"},
        {"NeMo.Intf.data", nullptr, ""},
        {"Other", R"({"returns":"true"})", ""},
    };
    // clang-format on
    for (const auto& [object, result, record] : cases) {
        SCOPED_TRACE(textOrEmpty(result));
        pcbFunctionCallback(object, "hasFlag", result);
        EXPECT_EQ(next(), record);
    }
}

TEST_F(Watch, ChecksCgNatOnceAtATime) {
    for (const char* other : {"True", "10", "yes"}) {
        pcbParamChanged("DNS.Server", "Status", "", other);
    }
    EXPECT_EQ(log_.count("connectin_setEventsAvailable"), 0U);
    for (const char* check : {"first", "second"}) {
        SCOPED_TRACE(check);
        pcbParamChanged("DNS.Server", "Status", "", "1");
        EXPECT_EQ(log_.count("Previous CG-NAT check is still pending!"), 0U);
        pcbFunctionCallback("NeMo.Intf.data", "hasFlag", "not JSON");  // releases the check all the same
    }
    pcbParamChanged("DNS.Server", "Status", "", "1");
    pcbParamChanged("DNS.Server", "Status", "", "true");
    log_.next("Previous CG-NAT check is still pending!");
    releasePendingCgNatChecks();
    destroyPcbDataModelClient();
}

TEST_F(Watch, RefusesAQueryNumberItCannotUse) {
    for (const std::string& number : {std::string("null"), std::string("\"\""), "\"" + std::string(79, '7') + "\""}) {
        pcbFunctionCallback("NeMo.Intf.data", "openQuery", ("{\"returns\":" + number + "}").c_str());
    }
    EXPECT_EQ(log_.count("isten"), 0U);
}
