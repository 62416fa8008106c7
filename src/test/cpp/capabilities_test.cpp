#include "fake_jvmti.h"

#include "capabilities.h"
#include "global.h"
#include "kvjvmti.h"
#include "log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bitset>
#include <cstdint>
#include <cstring>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {
constexpr size_t CAP_WORDS = sizeof(jvmtiCapabilities) / sizeof(uint32_t);

size_t bits_set(const jvmtiCapabilities& caps) {
    uint32_t words[CAP_WORDS];
    memcpy(words, &caps, sizeof words);
    size_t count = 0;
    for (uint32_t word : words) count += std::bitset<32>(word).count();
    return count;
}

std::vector<std::string> held_names(const jvmtiCapabilities& caps) {
    std::vector<std::string> names;
    for (const CapabilityField& field : CAPABILITY_FIELDS) {
        if (field.held(caps)) names.emplace_back(field.name);
    }
    return names;
}

}  // namespace

TEST(Capabilities, AddUpdRequestsExactlyTheDebuggingSetOfTheConfiguration) {
    for (bool exceptions : {false, true}) {
        for (bool stepping : {false, true}) {
            SCOPED_TRACE(testing::Message() << "exceptions=" << exceptions << " stepping=" << stepping);
            ScopedValue<bool> scoped_exceptions(g_exceptions_enabled, exceptions);
            ScopedValue<bool> scoped_stepping(g_stepping_enabled, stepping);
            FakeJvmti fake;
            EXPECT_THAT(log_lines(LOG_WARN_LEVEL, [] { EXPECT_TRUE(add_upd_capabilities()); }), IsEmpty());
            EXPECT_THAT(fake.calls, ElementsAre("AddCapabilities", "GetCapabilities"));
            ASSERT_EQ(1u, fake.added.size());

            std::vector<std::string> wanted = {"can_tag_objects", "can_generate_field_modification_events",
                                               "can_generate_field_access_events", "can_get_bytecodes",
                                               "can_get_current_contended_monitor", "can_get_source_file_name",
                                               "can_get_line_numbers", "can_get_source_debug_extension",
                                               "can_access_local_variables", "can_generate_single_step_events"};
            if (exceptions) wanted.emplace_back("can_generate_exception_events");
            if (stepping) wanted.emplace_back("can_generate_frame_pop_events");
            for (const char* name : {"can_generate_breakpoint_events", "can_suspend",
                                     "can_get_owned_monitor_stack_depth_info"}) {
                wanted.emplace_back(name);
            }
            EXPECT_EQ(wanted, held_names(fake.added[0]));
            EXPECT_EQ(wanted.size(), bits_set(fake.added[0])) << "nothing set beyond the named fields";
        }
    }
}

TEST(Capabilities, AddUpdFailsWhenEitherCallFailsAndDumpsOnlyOnSuccess) {
    {
        FakeJvmti fake;
        fake.fail("AddCapabilities", JVMTI_ERROR_NOT_AVAILABLE);
        EXPECT_THAT(log_lines(LOG_DEBUG_LEVEL, [] { EXPECT_FALSE(add_upd_capabilities()); }), IsEmpty());
        EXPECT_THAT(fake.calls, ElementsAre("AddCapabilities"));
    }
    {
        FakeJvmti fake;
        fake.fail("GetCapabilities", JVMTI_ERROR_NOT_AVAILABLE);
        EXPECT_THAT(log_lines(LOG_DEBUG_LEVEL, [] { EXPECT_FALSE(add_upd_capabilities()); }), IsEmpty());
        EXPECT_THAT(fake.calls, ElementsAre("AddCapabilities", "GetCapabilities"));
    }
    FakeJvmti fake;
    std::vector<std::string> lines = log_lines(LOG_DEBUG_LEVEL, [] { EXPECT_TRUE(add_upd_capabilities()); });
    ASSERT_EQ(1 + CAPABILITY_FIELD_COUNT, lines.size());
    EXPECT_EQ("DEBUG Capabilities", lines[0]);
    EXPECT_EQ("DEBUG \tcan_tag_objects=1", lines[1]);
}
