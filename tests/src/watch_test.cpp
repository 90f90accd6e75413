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
    struct Case {
        const char *object, *parameter, *record;
    };
    for (const Case& c : {
             Case{"OrvoService.HomeAutomation", "ApplicationServer",   "1:new" },
             Case{"OrvoService.HomeAutomation", "CommunicationServer", "3:new" },
             Case{"NMC.HomeAutomation",         "HA-ID",               "5:new" },
             Case{"NMC.HomeAutomation",         "Enable",              "7:new" },
             Case{"DNS.Server",                 "Status",              "9:new" },
             Case{"OrvoService.DynDNS",         "Enable",              "14:new"},
             Case{"OrvoService.DynDNS",         "HostName",            ""      },
             Case{"NMC.HomeAutomation",         "ha-id",               ""      },
             Case{"DNS.Server.Sub",             "Status",              ""      },
             Case{"NeMo.Intf.data.Query.1",     "ResultString",        ""      },
    }) {
        SCOPED_TRACE(std::string(c.object) + " " + c.parameter);
        pcbParamChanged(c.object, c.parameter, "old", "new");
        EXPECT_EQ(next(), c.record);
        EXPECT_EQ(next(), "");
    }
    log_.next("Change in observed PCB parameter");
    log_.next("OBJECT=OrvoService.HomeAutomation");
    log_.next("PARAMETER=ApplicationServer");
    log_.next("OLD_VALUE=old");
    log_.next("NEW_VALUE=new");
    EXPECT_EQ(log_.count("Change in observed"), 6U);
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
    struct Case {
        const char *result, *record;
    };
    for (const Case& c : {
             Case{"{}",                     ""        },
             Case{R"({"returns":null})",    ""        },
             Case{R"({"returns":true})",    ""        },
             Case{R"({"returns":"false"})", "11:false"},
             Case{R"({"returns":"0"})",     ""        },
             Case{R"({"returns":"true"})",  "12:true" },
             Case{R"({"returns":"1"})",     ""        },
             Case{R"({"Returns":"True"})",  "12:True" },
             Case{nullptr,                  ""        },
    }) {
        SCOPED_TRACE(textOrEmpty(c.result));
        pcbFunctionCallback("NeMo.Intf.data", "hasFlag", c.result);
        EXPECT_EQ(next(), c.record);
    }
    pcbFunctionCallback("Other", "hasFlag", R"({"returns":"false"})");
    EXPECT_EQ(next(), "");
}

TEST_F(Watch, RefusesAQueryNumberItCannotUse) {
    pcbFunctionCallback("NeMo.Intf.data", "openQuery", R"({"returns":null})");
    log_.next("Empty query number!");
    pcbFunctionCallback("NeMo.Intf.data", "openQuery", R"({"returns":""})");
    log_.next("Empty query number!");
    pcbFunctionCallback("NeMo.Intf.data", "openQuery", "");
    const std::string number(79, '7');
    pcbFunctionCallback("NeMo.Intf.data", "openQuery", (R"({"returns":")" + number + R"("})").c_str());
    log_.next("Query number too long: " + number);
    EXPECT_EQ(log_.count("Listening to changes in"), 0U);
    EXPECT_EQ(log_.count("Empty query number!"), 2U);
}
