#include "bytecode.h"

#include <gtest/gtest.h>

#include <vector>

namespace {
// A loop around a static call, as javac compiles `for (int i = 0; i < 10; i++) f(); return;`,
// then an interface call, a table switch (padded), a lookup switch, wide iinc, athrow and ret.
const std::vector<uint8_t> CODE = {
    0x03,                    // 0  iconst_0
    0x3c,                    // 1  istore_1
    0x1b,                    // 2  iload_1
    0x10, 0x0a,              // 3  bipush 10
    0xa2, 0x00, 0x0c,        // 5  if_icmpge +12 -> 17
    0xb8, 0x00, 0x02,        // 8  invokestatic
    0x84, 0x01, 0x01,        // 11 iinc 1 1
    0xa7, 0xff, 0xf4,        // 14 goto -12 -> 2
    0xb9, 0x00, 0x03, 0x01, 0x00,  // 17 invokeinterface
    0xaa, 0x00,              // 22 tableswitch, padded to 24
    0x00, 0x00, 0x00, 0x1c,  // 24 default +28 -> 50
    0x00, 0x00, 0x00, 0x01,  // 28 low 1
    0x00, 0x00, 0x00, 0x02,  // 32 high 2
    0x00, 0x00, 0x00, 0x1d,  // 36 +29 -> 51
    0x00, 0x00, 0x00, 0x1e,  // 40 +30 -> 52
    0xab, 0x00, 0x00, 0x00,  // 44 lookupswitch, padded to 48
    0x00, 0x00, 0x00, 0x08,  // 48 default +8 -> 52
    0x00, 0x00, 0x00, 0x01,  // 52 one pair
    0x00, 0x00, 0x00, 0x07,  // 56 match 7
    0xff, 0xff, 0xff, 0xfc,  // 60 -4 -> 40
    0xc4, 0x84, 0x00, 0x01, 0x00, 0x05,  // 64 wide iinc
    0xbf,                    // 70 athrow
    0xa9, 0x01,              // 71 ret
    0xb1,                    // 73 return
    0xb6, 0x00,              // 74 invokevirtual, cut short
};

struct Case {
    size_t at;
    size_t length;
    Flow flow;
    std::vector<size_t> followers;   // may follow
    std::vector<size_t> strangers;   // may not
    size_t resume;                   // after a call made here; 0: none
};
}  // namespace

TEST(Bytecode, LengthsFlowWhatMayFollowAndWhereACallReturns) {
    const Case cases[] = {
        {0, 1, Flow::NEXT, {1}, {0, 2}, 1},
        {5, 3, Flow::NEXT, {8, 17}, {2, 9}, 0},               // conditional: both ways
        {8, 3, Flow::INVOKE, {11}, {0, 8}, 11},               // back after the call
        {14, 3, Flow::NEXT, {2}, {17}, 0},                    // goto never falls through
        {17, 5, Flow::INVOKE, {22}, {20}, 22},
        {22, 22, Flow::NEXT, {50, 51, 52}, {44, 23}, 0},      // table: targets only
        {44, 20, Flow::NEXT, {52, 40}, {64, 56}, 0},          // lookup: default and the pair's target
        {64, 6, Flow::NEXT, {70}, {68}, 70},
        {70, 1, Flow::UNKNOWN, {}, {71}, 0},                  // athrow: anywhere
        {71, 2, Flow::UNKNOWN, {}, {73}, 0},                  // ret: anywhere
        {73, 1, Flow::RETURN, {}, {74}, 0},                   // may run a finaliser's registration
        {74, 0, Flow::UNKNOWN, {}, {76, 77}, 0},              // cut short
        {200, 0, Flow::UNKNOWN, {}, {201}, 0},                // past the end
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.at);
        EXPECT_EQ(c.length, instruction_length(CODE.data(), CODE.size(), c.at));
        EXPECT_EQ(c.flow, flow_at(CODE.data(), CODE.size(), c.at));
        for (size_t to : c.followers) EXPECT_TRUE(may_follow(CODE.data(), CODE.size(), c.at, to)) << to;
        for (size_t to : c.strangers) EXPECT_FALSE(may_follow(CODE.data(), CODE.size(), c.at, to)) << to;
        EXPECT_EQ(c.resume, resume_after_call(CODE.data(), CODE.size(), c.at));
    }
    const uint8_t undefined[] = {0xcb, 0xff, 0xc4, 0x00};
    EXPECT_EQ(0u, instruction_length(undefined, 4, 0));
    EXPECT_EQ(0u, instruction_length(undefined, 4, 1));
    EXPECT_EQ(0u, instruction_length(undefined, 4, 2)) << "wide of nothing that can be widened";
    EXPECT_EQ(0u, instruction_length(nullptr, 4, 0));
}
