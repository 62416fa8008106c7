#include "event_mask.h"
#include "step_data.h"

#include <gtest/gtest.h>

#include <utility>

TEST(EventMask, NamesBitsAndMaskTextStayInsideTheEventRange) {
    // The first and last named events, and the gaps around and between them.
    for (auto [event, name] : {std::pair{50, "VM_INIT"}, {84, "OBJECT_ALLOC"}, {49, "UNKNOWN"}, {72, "UNKNOWN"},
                               {78, "UNKNOWN"}, {85, "UNKNOWN"}, {-1, "UNKNOWN"}}) {
        EXPECT_STREQ(name, event_to_string(event)) << event;
    }
    // Bit (event - 50) of a signed 64-bit word, and no bit for an event outside it.
    for (auto [event, bit] : {std::pair{62, jlong{1} << 12}, {113, jlong{1} << 63}, {49, jlong{0}}, {114, jlong{0}}}) {
        EXPECT_EQ(bit, event_bit(event)) << event;
    }
    // Names in ascending order; only positions 0 to 33 are walked, so bits above give no text.
    for (auto [mask, text] : {std::pair{jlong{0}, "NONE"}, {jlong{0x1400}, "SINGLE_STEP,BREAKPOINT"},
                              {event_bit(50) | event_bit(83), "VM_INIT,OBJECT_FREE"}, {jlong{1} << 22, "UNKNOWN"},
                              {jlong{1} << 34, ""}, {jlong{1} << 63, ""}}) {
        EXPECT_EQ(text, event_mask_to_string(mask)) << mask;
    }
}

TEST(StepCommand, NamesReadTheValueAsUnsigned) {
    for (auto [command, name] : {std::pair{0, "UNKNOWN"}, {8, "NOOP"}, {9, "UNKNOWN"}, {-1, "UNKNOWN"}}) {
        EXPECT_STREQ(name, step_type_name(command)) << command;
    }
}
