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

// The record's bit-fields are laid out from the lowest bit of its first word up, so field n of
// the record is bit n of the run of words.
jvmtiCapabilities only_field(size_t n) {
    uint32_t words[CAP_WORDS] = {};
    words[n / 32] = uint32_t{1} << (n % 32);
    jvmtiCapabilities caps;
    memcpy(&caps, words, sizeof caps);
    return caps;
}

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

size_t slots_filled(const jvmtiEventCallbacks& callbacks) {
    uintptr_t slots[sizeof callbacks / sizeof(uintptr_t)];
    memcpy(slots, &callbacks, sizeof slots);
    size_t count = 0;
    for (uintptr_t slot : slots) count += slot != 0;
    return count;
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
                                               "can_generate_field_access_events",
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

TEST(Capabilities, DumpShowsEveryFieldInRecordOrderAtDebugOnly) {
    jvmtiCapabilities first{}, last{};
    first.can_tag_objects = 1;
    last.can_generate_resource_exhaustion_threads_events = 1;
    jvmtiCapabilities field0 = only_field(0), field40 = only_field(40);
    ASSERT_EQ(0, memcmp(&first, &field0, sizeof first)) << "bit-field layout";
    ASSERT_EQ(0, memcmp(&last, &field40, sizeof last)) << "bit-field layout";

    FakeJvmti fake;
    EXPECT_THAT(log_lines(LOG_WARN_LEVEL, dump_capabilities), IsEmpty());
    EXPECT_THAT(fake.calls, IsEmpty()) << "nothing is asked for below DEBUG";

    // Each field in turn is the only one held: its line, and no other, must say 1.
    std::vector<std::string> names;
    for (size_t n = 0; n < CAPABILITY_FIELD_COUNT; n++) {
        fake.held = only_field(n);
        std::vector<std::string> lines = log_lines(LOG_DEBUG_LEVEL, dump_capabilities);
        ASSERT_EQ(1 + CAPABILITY_FIELD_COUNT, lines.size());
        EXPECT_EQ("DEBUG Capabilities", lines[0]);
        for (size_t i = 0; i < CAPABILITY_FIELD_COUNT; i++) {
            const std::string& line = lines[1 + i];
            ASSERT_EQ(0u, line.rfind("DEBUG \tcan_", 0)) << line;
            EXPECT_EQ(i == n ? "=1" : "=0", line.substr(line.size() - 2)) << "field " << n << ": " << line;
            if (n == 0) names.push_back(line.substr(7, line.size() - 9));
        }
    }
    EXPECT_EQ("can_tag_objects", names[0]);
    EXPECT_EQ("can_generate_single_step_events", names[16]);
    EXPECT_EQ("can_get_owned_monitor_stack_depth_info", names[34]);
    EXPECT_EQ("can_generate_resource_exhaustion_threads_events", names[40]);

    fake.fail("GetCapabilities", JVMTI_ERROR_NOT_AVAILABLE);
    EXPECT_THAT(log_lines(LOG_DEBUG_LEVEL, dump_capabilities), IsEmpty());
}

TEST(Callbacks, InstalledNamesFollowTheConfigurationInStartUpOrder) {
    // Every slot filled: all twelve names, in the order start-up logs them.
    jvmtiEventCallbacks every;
    memset(&every, 0x5a, sizeof every);
    EXPECT_THAT(installed_callback_names(every),
                ElementsAre("Breakpoint", "Exception", "ExceptionCatch", "SingleStep", "FramePop", "ClassPrepare",
                            "FieldAccess", "FieldModification", "ThreadStart", "ThreadEnd", "DataDumpRequest",
                            "ClassFileLoadHook"));
    EXPECT_THAT(installed_callback_names(jvmtiEventCallbacks{}), IsEmpty());

    for (bool exceptions : {false, true}) {
        for (bool stepping : {false, true}) {
            SCOPED_TRACE(testing::Message() << "exceptions=" << exceptions << " stepping=" << stepping);
            jvmtiEventCallbacks callbacks = build_callbacks(exceptions, stepping);
            std::vector<std::string> wanted = {"Breakpoint"};
            if (exceptions) wanted.insert(wanted.end(), {"Exception", "ExceptionCatch"});
            wanted.emplace_back("SingleStep");
            if (stepping) wanted.emplace_back("FramePop");
            wanted.insert(wanted.end(), {"ClassPrepare", "FieldAccess", "FieldModification", "ThreadStart",
                                         "ThreadEnd", "DataDumpRequest", "ClassFileLoadHook"});
            EXPECT_EQ(wanted, installed_callback_names(callbacks));
            EXPECT_EQ(wanted.size(), slots_filled(callbacks)) << "no callback outside the named ones";

            // Stepping off swaps in the variant of SingleStep that needs no frame-pop events.
            jvmtiEventCallbacks with_stepping = build_callbacks(!exceptions, true);
            if (stepping) {
                EXPECT_EQ(with_stepping.SingleStep, callbacks.SingleStep);
            } else {
                EXPECT_NE(nullptr, callbacks.SingleStep);
                EXPECT_NE(with_stepping.SingleStep, callbacks.SingleStep);
                EXPECT_EQ(nullptr, callbacks.FramePop);
            }
        }
    }
}
