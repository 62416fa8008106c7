#include "signature.h"

#include <gtest/gtest.h>

TEST(Signature, ArgumentTypesIncludingArraysAndClasses) {
    const char* signature = "([IJLjava/lang/String;[[Ljava/lang/Object;Z)V";
    EXPECT_EQ("[I", get_arg_sig(signature, 0));
    EXPECT_EQ("J", get_arg_sig(signature, 1));
    EXPECT_EQ("Ljava/lang/String;", get_arg_sig(signature, 2));
    EXPECT_EQ("[[Ljava/lang/Object;", get_arg_sig(signature, 3));
    EXPECT_EQ("Z", get_arg_sig(signature, 4));
    EXPECT_EQ("", get_arg_sig(signature, 5)) << "the return type is no argument";
    EXPECT_EQ("", get_arg_sig("()Ljava/lang/String;", 0));
    EXPECT_EQ("", get_arg_sig("", 0));
    EXPECT_EQ("", get_arg_sig("(Ljava/lang/Str", 0)) << "a truncated class name";
}

TEST(Signature, LongsAndDoublesTakeTwoSlots) {
    std::vector<ArgumentSlot> slots = argument_slots("(JLjava/lang/String;DI)V", 1);
    ASSERT_EQ(4u, slots.size());
    EXPECT_EQ(1, slots[0].slot);
    EXPECT_EQ("J", slots[0].type);
    EXPECT_EQ(3, slots[1].slot);
    EXPECT_EQ(4, slots[2].slot);
    EXPECT_EQ("D", slots[2].type);
    EXPECT_EQ(6, slots[3].slot);
    EXPECT_TRUE(argument_slots("()V", 0).empty());
    EXPECT_EQ(0, argument_slots("([II)V", 0)[0].slot);
}
