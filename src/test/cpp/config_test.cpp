#include "capabilities.h"
#include "config.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

TEST(Config, LogLevelReadsLeadingDigitsOnly) {
    EXPECT_EQ(4, parse_log_level("4"));
    EXPECT_EQ(12, parse_log_level("12abc"));
    EXPECT_EQ(-1, parse_log_level("-1"));
    EXPECT_EQ(0, parse_log_level("abc"));
    EXPECT_EQ(0, parse_log_level(""));
}

TEST(Config, ColdFusionByHomeOrCommandPrefixWithItsDot) {
    EXPECT_TRUE(is_coldfusion(true, nullptr));
    EXPECT_TRUE(is_coldfusion(true, "org.example.Main"));
    EXPECT_TRUE(is_coldfusion(false, "com.adobe.coldfusion.bootstrap.Bootstrap -start"));
    EXPECT_FALSE(is_coldfusion(false, "com.adobe.coldfusion"));
    EXPECT_FALSE(is_coldfusion(false, "com.adobe.coldfusionX.Main"));
    EXPECT_FALSE(is_coldfusion(false, nullptr));
}

TEST(Config, SwitchesEnableOnlyOnExactTrue) {
    EXPECT_TRUE(parse_switch(nullptr, false));
    EXPECT_FALSE(parse_switch(nullptr, true));
    for (bool coldfusion : {false, true}) {
        EXPECT_TRUE(parse_switch("true", coldfusion));
        for (const char* value : {"TRUE", "True", "1", "", "true "}) EXPECT_FALSE(parse_switch(value, coldfusion)) << value;
    }
}

namespace {
bool held(const jvmtiCapabilities& caps, const char* name) {
    for (const CapabilityField& field : CAPABILITY_FIELDS) {
        if (strcmp(field.name, name) == 0) return field.held(caps);
    }
    ADD_FAILURE() << "no capability field " << name;
    return false;
}

int count_held(const jvmtiCapabilities& caps) {
    int count = 0;
    for (const CapabilityField& field : CAPABILITY_FIELDS) count += field.held(caps) ? 1 : 0;
    return count;
}
}  // namespace

TEST(Capabilities, WithoutBasicRemovesExactlyTheBasicSet) {
    jvmtiCapabilities basic = basic_capabilities();
    EXPECT_EQ(5, count_held(basic));
    EXPECT_EQ(0, count_held(without_basic(basic)));
    jvmtiCapabilities debugging = debugging_capabilities(true, true);
    jvmtiCapabilities rest = without_basic(debugging);
    EXPECT_EQ(count_held(debugging) - 4, count_held(rest));  // object-free events are not in the debugging set
    EXPECT_FALSE(held(rest, "can_tag_objects") || held(rest, "can_get_line_numbers"));
    EXPECT_TRUE(held(rest, "can_access_local_variables"));
}
