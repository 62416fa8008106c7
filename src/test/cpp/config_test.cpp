#include "capabilities.h"
#include "config.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

// Each reader of a property value, against values anyone starting the JVM can set.
TEST(Config, PropertyValuesAreReadExactlyAsDocumented) {
    const struct {
        const char* text;
        int level;
    } levels[] = {{"4", 4}, {"12abc", 12}, {"-1", -1}, {"abc", 0}, {"", 0}};
    for (const auto& c : levels) EXPECT_EQ(c.level, parse_log_level(c.text)) << c.text;

    EXPECT_TRUE(parse_switch(nullptr, false));
    EXPECT_FALSE(parse_switch(nullptr, true));
    for (bool coldfusion : {false, true}) {
        EXPECT_TRUE(parse_switch("true", coldfusion));
        for (const char* value : {"TRUE", "True", "1", "", "true "}) EXPECT_FALSE(parse_switch(value, coldfusion)) << value;
    }

    const struct {
        const char* text;
        long megabytes;  // 0: the default stays
    } ceilings[] = {{"2", 2},   {"4096", 4096}, {"007", 7},   {nullptr, 0}, {"", 0},
                    {"0", 0},   {"-5", 0},      {"+5", 0},    {" 5", 0},    {"5 ", 0},
                    {"5MB", 0}, {"1.5", 0},     {"17592186044415", 17592186044415L},
                    {"17592186044416", 0},      {"99999999999999999999999", 0}};
    for (const auto& c : ceilings) EXPECT_EQ(c.megabytes, parse_walk_max_mb(c.text)) << (c.text ? c.text : "null");
}

TEST(Config, ColdFusionByHomeOrCommandPrefixWithItsDot) {
    EXPECT_TRUE(is_coldfusion(true, nullptr));
    EXPECT_TRUE(is_coldfusion(true, "org.example.Main"));
    EXPECT_TRUE(is_coldfusion(false, "com.adobe.coldfusion.bootstrap.Bootstrap -start"));
    EXPECT_FALSE(is_coldfusion(false, "com.adobe.coldfusion"));
    EXPECT_FALSE(is_coldfusion(false, "com.adobe.coldfusionX.Main"));
    EXPECT_FALSE(is_coldfusion(false, nullptr));
}

TEST(Config, WalkCeilingDefaultsToAQuarterOfTheLowerMemoryLimitAndAtLeast64MB) {
    const struct {
        const char* text;
        uint64_t bytes;  // 0: no limit
    } limits[] = {{"max\n", 0},         {"1073741824\n", 1ULL << 30},  {"9223372036854771712\n", 9223372036854771712ULL},
                  {"", 0},               {"-1\n", 0},                   {"12 MB", 0},
                  {"99999999999999999999999", 0}};
    for (const auto& c : limits) EXPECT_EQ(c.bytes, parse_cgroup_memory_limit(c.text)) << c.text;

    constexpr uint64_t GB = 1ULL << 30;
    const struct {
        uint64_t physical;
        uint64_t cgroup;
        long megabytes;
    } defaults[] = {{16 * GB, 0, 4096},   {16 * GB, 2 * GB, 512}, {16 * GB, 64 * GB, 4096},
                    {GB / 8, 0, 64},      {0, 0, 64},             {0, GB, 256},
                    {16 * GB, 9223372036854771712ULL, 4096}};
    for (const auto& c : defaults) {
        EXPECT_EQ(c.megabytes, default_walk_max_mb(c.physical, c.cgroup)) << c.physical << " " << c.cgroup;
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
