#include "capabilities.h"
#include "config.h"
#include "virtual_threads.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

// Each reader of a property value, against values anyone starting the JVM can set.
TEST(Config, PropertyValuesAreReadExactlyAsDocumented) {
    for (auto [text, level] : {std::pair{"4", 4}, {"12abc", 12}, {"-1", -1}, {"abc", 0}, {"", 0}}) {
        EXPECT_EQ(level, parse_log_level(text)) << text;
    }
    EXPECT_TRUE(parse_switch(nullptr, false));
    EXPECT_FALSE(parse_switch(nullptr, true));
    for (bool coldfusion : {false, true}) {
        EXPECT_TRUE(parse_switch("true", coldfusion));
        for (const char* value : {"TRUE", "True", "1", "", "true "}) EXPECT_FALSE(parse_switch(value, coldfusion)) << value;
    }
    // A walk ceiling of 0 leaves the default in force.
    for (auto [text, megabytes] : {std::pair<const char*, long>{"2", 2}, {"4096", 4096}, {"007", 7}, {nullptr, 0},
                                   {"", 0}, {"0", 0}, {"-5", 0}, {"+5", 0}, {" 5", 0}, {"5 ", 0}, {"5MB", 0},
                                   {"1.5", 0}, {"17592186044415", 17592186044415L}, {"17592186044416", 0},
                                   {"99999999999999999999999", 0}}) {
        EXPECT_EQ(megabytes, parse_walk_max_mb(text)) << (text != nullptr ? text : "null");
    }
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
    constexpr uint64_t GB = 1ULL << 30, V1_UNLIMITED = 9223372036854771712ULL;
    for (auto [text, bytes] : {std::pair<const char*, uint64_t>{"max\n", 0}, {"1073741824\n", GB},
                               {"9223372036854771712\n", V1_UNLIMITED}, {"", 0}, {"-1\n", 0}, {"12 MB", 0},
                               {"99999999999999999999999", 0}}) {
        EXPECT_EQ(bytes, parse_cgroup_memory_limit(text)) << text;
    }
    const uint64_t cases[][3] = {{16 * GB, 0, 4096}, {16 * GB, 2 * GB, 512}, {16 * GB, 64 * GB, 4096},
                                 {GB / 8, 0, 64},    {0, 0, 64},             {0, GB, 256},
                                 {16 * GB, V1_UNLIMITED, 4096}};
    for (const auto& c : cases) EXPECT_EQ(static_cast<long>(c[2]), default_walk_max_mb(c[0], c[1])) << c[0] << " " << c[1];
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

    // Virtual-thread support: the unnamed bit after sampled allocation events (bit 44), held from
    // load on and never given back.
    jvmtiCapabilities virtual_only{};
    set_virtual_thread_capability(&virtual_only, true);
    unsigned char bytes[sizeof virtual_only];
    std::memcpy(bytes, &virtual_only, sizeof bytes);
    EXPECT_EQ(0x10, bytes[5]);
    EXPECT_TRUE(has_virtual_thread_capability(virtual_only));
    EXPECT_EQ(0, count_held(virtual_only)) << "no named field";
    EXPECT_FALSE(has_virtual_thread_capability(without_basic(virtual_only)));
    EXPECT_FALSE(has_virtual_thread_capability(debugging));
}
