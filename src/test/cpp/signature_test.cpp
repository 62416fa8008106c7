#include "signature.h"

#include <gtest/gtest.h>

#include <tuple>

TEST(Signature, ArgumentTypesAndTheSlotsTheyTake) {
    const char* mixed = "([IJLjava/lang/String;[[Ljava/lang/Object;Z)V";
    for (auto [signature, n, type] : {std::tuple{mixed, 0, "[I"}, {mixed, 1, "J"}, {mixed, 2, "Ljava/lang/String;"},
                                      {mixed, 3, "[[Ljava/lang/Object;"}, {mixed, 4, "Z"},
                                      {mixed, 5, ""},  // the return type is no argument
                                      {"()Ljava/lang/String;", 0, ""}, {"", 0, ""}, {"(IJ)V", -1, ""},
                                      {"([[[)V", 0, ""},  // arrays of nothing
                                      {"(Ljava/lang/Str", 0, ""}}) {  // a truncated class name
        EXPECT_EQ(type, get_arg_sig(signature, n)) << signature << " " << n;
    }
    // Longs and doubles take two slots, so later arguments move up.
    std::string listed;
    for (const ArgumentSlot& argument : argument_slots("(JLjava/lang/String;DI)V", 1)) {
        listed += std::to_string(argument.slot) + argument.type + " ";
    }
    EXPECT_EQ("1J 3Ljava/lang/String; 4D 6I ", listed);
    EXPECT_TRUE(argument_slots("()V", 0).empty());
    EXPECT_EQ(0, argument_slots("([II)V", 0)[0].slot);
}
