#include "event_mask.h"
#include "step_data.h"

#include <gtest/gtest.h>

TEST(EventMask, NamesEveryEventAndUnknownForGaps) {
    EXPECT_STREQ("VM_INIT", event_to_string(50));
    EXPECT_STREQ("BREAKPOINT", event_to_string(62));
    EXPECT_STREQ("METHOD_BIND", event_to_string(67));
    EXPECT_STREQ("OBJECT_ALLOC", event_to_string(84));
    int named = 0;
    for (int event = 40; event < 100; event++) named += std::string(event_to_string(event)) != "UNKNOWN";
    EXPECT_EQ(31, named);
    for (int gap : {49, 72, 77, 78, 79, 85, -1}) EXPECT_STREQ("UNKNOWN", event_to_string(gap)) << gap;
}

TEST(EventMask, TextListsEventsInAscendingOrder) {
    EXPECT_EQ("NONE", event_mask_to_string(0));
    EXPECT_EQ("SINGLE_STEP,BREAKPOINT", event_mask_to_string(0x1400));
    EXPECT_EQ("SINGLE_STEP,FRAME_POP", event_mask_to_string(event_bit(60) | event_bit(61)));
    EXPECT_EQ("UNKNOWN", event_mask_to_string(jlong{1} << 22));
    // Only positions 0 to 33 are walked: a mask with nothing below gives no names at all.
    EXPECT_EQ("", event_mask_to_string(jlong{1} << 34));
    EXPECT_EQ("", event_mask_to_string(jlong{1} << 63));
    EXPECT_EQ("VM_INIT,OBJECT_FREE", event_mask_to_string(-1 & (event_bit(50) | event_bit(83))));
}

TEST(EventMask, BitsStayInsideTheWord) {
    EXPECT_EQ(jlong{1} << 12, event_bit(62));
    EXPECT_EQ(0, event_bit(49));
    EXPECT_EQ(0, event_bit(50 + 64));
    EXPECT_EQ(jlong{1} << 63, event_bit(50 + 63));
}

TEST(StepCommand, NamesReadTheValueAsUnsigned) {
    EXPECT_STREQ("UNKNOWN", step_type_name(0));
    EXPECT_STREQ("STEP_OVER", step_type_name(5));
    EXPECT_STREQ("NOOP", step_type_name(8));
    EXPECT_STREQ("UNKNOWN", step_type_name(9));
    EXPECT_STREQ("UNKNOWN", step_type_name(-1));
}
