#include "config.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <utility>

// Each reader of a property value, against values anyone starting the JVM can set.
TEST(Config, PropertyValuesAreReadExactlyAsDocumented) {
    for (auto [text, level] : {std::pair{"12abc", 12}, {"-1", -1}, {"abc", 0}}) {
        EXPECT_EQ(level, parse_log_level(text)) << text;
    }
    for (bool coldfusion : {false, true}) {
        EXPECT_EQ(!coldfusion, parse_switch(nullptr, coldfusion)) << "absent: on except under ColdFusion";
        EXPECT_TRUE(parse_switch("true", coldfusion));
        for (const char* value : {"TRUE", "1", "", "true "}) EXPECT_FALSE(parse_switch(value, coldfusion)) << value;
    }
    // ColdFusion by its home, or by its command's prefix with the final dot.
    EXPECT_TRUE(is_coldfusion(true, nullptr) && is_coldfusion(true, "org.example.Main"));
    EXPECT_TRUE(is_coldfusion(false, "com.adobe.coldfusion.bootstrap.Bootstrap -start"));
    EXPECT_FALSE(is_coldfusion(false, nullptr) || is_coldfusion(false, "com.adobe.coldfusion"));
    EXPECT_FALSE(is_coldfusion(false, "com.adobe.coldfusionX.Main"));
    // 0 leaves the default in force; 17592186044415 MB is the most that still counts in bytes.
    for (auto [text, megabytes] : {std::pair<const char*, long>{"2", 2}, {"007", 7}, {nullptr, 0}, {"", 0}, {"0", 0},
                                   {"-5", 0}, {"+5", 0}, {" 5", 0}, {"5MB", 0}, {"1.5", 0},
                                   {"17592186044415", 17592186044415L}, {"17592186044416", 0},
                                   {"99999999999999999999999", 0}}) {
        EXPECT_EQ(megabytes, parse_walk_max_mb(text)) << (text != nullptr ? text : "null");
    }
}

TEST(Config, WalkCeilingDefaultsToAQuarterOfTheLowerMemoryLimitAndAtLeast64MB) {
    constexpr uint64_t GB = 1ULL << 30, V1_UNLIMITED = 9223372036854771712ULL;
    for (auto [text, bytes] : {std::pair<const char*, uint64_t>{"max\n", 0}, {"1073741824\n", GB},
                               {"9223372036854771712\n", V1_UNLIMITED}, {"-1\n", 0}, {"12 MB", 0},
                               {"99999999999999999999999", 0}}) {
        EXPECT_EQ(bytes, parse_cgroup_memory_limit(text)) << text;
    }
    // physical, control group limit (0: none), expected megabytes
    const uint64_t cases[][3] = {{16 * GB, 0, 4096}, {16 * GB, 2 * GB, 512}, {16 * GB, 64 * GB, 4096},
                                 {GB / 8, 0, 64},    {0, 0, 64},             {0, GB, 256},
                                 {16 * GB, V1_UNLIMITED, 4096}};
    for (const auto& c : cases) EXPECT_EQ(static_cast<long>(c[2]), default_walk_max_mb(c[0], c[1])) << c[0] << " " << c[1];
}
