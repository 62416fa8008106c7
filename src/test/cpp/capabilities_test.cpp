#include "capabilities.h"
#include "virtual_threads.h"

#include <gtest/gtest.h>

#include <cstring>

// What setActive(false) gives back: everything but the basic set, which stays from load on, and
// virtual-thread support (an unnamed bit after sampled allocation events, bit 44), which is
// never given back either.
TEST(Capabilities, WithoutBasicDropsTheBasicSetAndVirtualThreadSupport) {
    const jvmtiCapabilities nothing{};
    auto none_held = [&](const jvmtiCapabilities& caps) { return std::memcmp(&caps, &nothing, sizeof caps) == 0; };
    EXPECT_TRUE(none_held(without_basic(basic_capabilities())));
    jvmtiCapabilities rest = without_basic(debugging_capabilities(true, true));
    EXPECT_FALSE(rest.can_tag_objects || rest.can_get_line_numbers);
    EXPECT_TRUE(rest.can_access_local_variables && rest.can_generate_breakpoint_events);

    jvmtiCapabilities virtual_only{};
    set_virtual_thread_capability(&virtual_only, true);
    unsigned char bytes[sizeof virtual_only];
    std::memcpy(bytes, &virtual_only, sizeof bytes);
    EXPECT_EQ(0x10, bytes[5]);
    EXPECT_TRUE(has_virtual_thread_capability(virtual_only));
    EXPECT_TRUE(none_held(without_basic(virtual_only)));
    EXPECT_FALSE(has_virtual_thread_capability(debugging_capabilities(true, true)));
}

// Exception and frame-pop events each only when configured. Which switches ask for exception events
// shows in the start-up lines of a real VM (StartupTest); without frame pops stepping falls back to
// single steps and nothing else would notice.
TEST(Capabilities, DebuggingAsksForTheOptionalEventsOnlyWhenConfigured) {
    const jvmtiCapabilities exceptions = debugging_capabilities(true, false);
    const jvmtiCapabilities frame_pops = debugging_capabilities(false, true);
    EXPECT_TRUE(exceptions.can_generate_exception_events && !exceptions.can_generate_frame_pop_events);
    EXPECT_TRUE(frame_pops.can_generate_frame_pop_events && !frame_pops.can_generate_exception_events);
}
