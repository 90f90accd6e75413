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
        for (size_t i = value.size(); i < sizeof record.value; ++i) {
            EXPECT_EQ(record.value[i], 0) << "byte " << i;
        }
        return std::to_string(record.code) + ":" + value;
    }

    int ends_[2];
    world::LogReader log_ = world::startLog();
};

TEST_F(Watch, ReportsEveryWatchedChangeAndNoOther) {
    const std::array<const char*, 3> cases[] = {
        {"OrvoService.HomeAutomation", "ApplicationServer",   "1:new" },
        {"OrvoService.HomeAutomation", "CommunicationServer", "3:new" },
        {"NMC.HomeAutomation",         "HA-ID",               "5:new" },
        {"NMC.HomeAutomation",         "Enable",              "7:new" },
        {"DNS.Server",                 "Status",              "9:new" },
        {"OrvoService.DynDNS",         "Enable",              "14:new"},
        {"OrvoService.DynDNS",         "HostName",            ""      },
        {"NMC.HomeAutomation",         "ha-id",               ""      },
        {"DNS.Server.Sub",             "Status",              ""      },
        {"NeMo.Intf.data.Query.1",     "ResultString",        ""      },
    };
    for (const auto& [object, parameter, record] : cases) {
        SCOPED_TRACE(std::string(object) + " " + parameter);
        pcbParamChanged(object, parameter, "old", "new");
        EXPECT_EQ(next(), record);
        EXPECT_EQ(next(), "");
    }
    EXPECT_TRUE(
        world::takeLog().starts_with("DEBUG Change in observed PCB parameter\nDEBUG OBJECT=OrvoService.HomeAutomation\n"
                                     "DEBUG PARAMETER=ApplicationServer\nDEBUG OLD_VALUE=old\nDEBUG NEW_VALUE=new\n"));
}

TEST_F(Watch, SendsUpTo1023BytesWholeAndNothingLonger) {
    const std::string longest(1023, 'x');
    sendValueThroughPipe(EVENT_HA_ID_CHANGED, longest.c_str());
    EXPECT_EQ(next(), "5:" + longest);
    sendValueThroughPipe(EVENT_HA_ID_CHANGED, (longest + "y").c_str());
    EXPECT_EQ(next(), "");
    log_.next("Parameter value too long: " + longest + "y");
    sendValueThroughPipe(EVENT_HA_ID_CHANGED, nullptr);
    EXPECT_EQ(next(), "5:");
}

TEST_F(Watch, ChecksCgNatOnceAtATime) {
    pcbParamChanged("DNS.Server", "Status", "", "false");
    pcbParamChanged("DNS.Server", "Status", "", "True");
    EXPECT_EQ(log_.count("connectin_setEventsAvailable"), 0U);
    pcbParamChanged("DNS.Server", "Status", "", "1");
    EXPECT_EQ(log_.count("connectin_setEventsAvailable"), 1U);
    EXPECT_EQ(log_.count("Previous CG-NAT check is still pending!"), 0U);
    pcbParamChanged("DNS.Server", "Status", "", "true");
    log_.next("Previous CG-NAT check is still pending!");
    pcbFunctionCallback("NeMo.Intf.data", "hasFlag", "not JSON");  // releases the check all the same
    pcbParamChanged("DNS.Server", "Status", "", "true");
    EXPECT_EQ(log_.count("Previous CG-NAT check is still pending!"), 1U);
    releasePendingCgNatChecks();
    destroyPcbDataModelClient();
}

TEST_F(Watch, ReportsTheFirstCgNatResultAndThenOnlyOtherTruths) {
    const std::pair<const char*, const char*> cases[] = {
        {"{}",                     ""        },
        {R"({"returns":null})",    ""        },
        {R"({"returns":true})",    ""        },
        {R"({"returns":"false"})", "11:false"},
        {R"({"returns":"0"})",     ""        },
        {R"({"returns":"true"})",  "12:true" },
        {R"({"returns":"1"})",     ""        },
        {R"({"Returns":"True"})",  "12:True" },
        {nullptr,                  ""        },
    };
    for (const auto& [result, record] : cases) {
        SCOPED_TRACE(textOrEmpty(result));
        pcbFunctionCallback("NeMo.Intf.data", "hasFlag", result);
        EXPECT_EQ(next(), record);
    }
    pcbFunctionCallback("Other", "hasFlag", R"({"returns":"false"})");
    EXPECT_EQ(next(), "");
}

TEST_F(Watch, RefusesAQueryNumberItCannotUse) {
    const std::string number(79, '7');
    for (const std::string& value : {std::string("null"), std::string("\"\""), "\"" + number + "\""}) {
        pcbFunctionCallback("NeMo.Intf.data", "openQuery", ("{\"returns\":" + value + "}").c_str());
    }
    pcbFunctionCallback("NeMo.Intf.data", "openQuery", "");
    log_.next("Query number too long: " + number);
    EXPECT_EQ(log_.count("Empty query number!"), 2U);
    EXPECT_EQ(log_.count("Listening to changes in"), 0U);
}
