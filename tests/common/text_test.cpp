#include "common/text/text.h"

#include <gtest/gtest.h>

TEST(Text, TruthIsExact) {
    for (const char* text : {"true", "yes"}) {
        EXPECT_EQ(bool_text_value_to_int(text), 1) << text;
    }
    for (const char* text : {"True", "1", "yes ", "", "truex"}) {
        EXPECT_EQ(bool_text_value_to_int(text), 0) << text;
    }
    EXPECT_TRUE(isDataModelTrue("true"));
    EXPECT_TRUE(isDataModelTrue("1"));
    for (const char* text : {"True", "10", "yes", "", static_cast<const char*>(nullptr)}) {
        EXPECT_FALSE(isDataModelTrue(text)) << textOrEmpty(text);
    }
}
