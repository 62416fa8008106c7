#include "frame_rules.h"
#include "line_table.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {
jint line_of(std::vector<jvmtiLineNumberEntry> table, jlocation location) {
    return find_line(table.data(), static_cast<jint>(table.size()), location);
}
}  // namespace

TEST(LineTable, ExactMatchElseGreatestStartBelow) {
    std::vector<jvmtiLineNumberEntry> table = {{0, 10}, {4, 11}, {9, 12}};
    EXPECT_EQ(11, line_of(table, 4));
    EXPECT_EQ(11, line_of(table, 6));
    EXPECT_EQ(12, line_of(table, 100));
    EXPECT_EQ(10, line_of(table, 0));
    EXPECT_EQ(-1, line_of({{2, 20}, {5, 21}}, 1));
    EXPECT_EQ(-1, line_of({}, 0));
}

TEST(LineTable, TableOrderDecidesBetweenEqualStartsAndNothingAssumesSorting) {
    EXPECT_EQ(7, line_of({{0, 7}, {0, 8}}, 3));
    EXPECT_EQ(7, line_of({{0, 7}, {0, 8}}, 0));
    std::vector<jvmtiLineNumberEntry> unsorted = {{8, 30}, {0, 10}, {4, 20}};
    EXPECT_EQ(20, line_of(unsorted, 6));
    EXPECT_EQ(30, line_of(unsorted, 9));
}

TEST(LineTable, Suffix) {
    EXPECT_TRUE(has_suffix("Lorg/x/page_cfm$cf;", "$cf;"));
    EXPECT_TRUE(has_suffix("abc", "abc"));
    EXPECT_TRUE(has_suffix("abc", ""));
    EXPECT_FALSE(has_suffix("bc", "abc"));
    EXPECT_FALSE(has_suffix("abc", "ab"));
}

TEST(FrameRules, ClassSignatures) {
    for (const char* cfml : {"Lcfindex2ecfm123456;", "Lcfmycomp2ecfc98765$funcGETDATA;", "Lorg/x/page_cfm$cf;",
                             "Lcf/deep/x2ecfm;"}) {
        EXPECT_EQ(LANG_CFML, classify_class_signature(cfml)) << cfml;
    }
    for (const char* java : {"Lcfg/Util;", "Lcom/x/Foo2ecfm;", "Ljava/lang/String;", "", "L", "[Lcfindex2ecfm1;"}) {
        EXPECT_EQ(LANG_JAVA, classify_class_signature(java)) << java;
    }
    EXPECT_STREQ("UNKNOWN", frame_language_name(0));
    EXPECT_STREQ("CFML", frame_language_name(2));
    EXPECT_STREQ("UNKNOWN", frame_language_name(7));
}

TEST(FrameRules, HiddenFramesArePrefixMatchesOnly) {
    for (const char* hidden : {"_call0", "_call01", "_factor12", "_factor"}) EXPECT_TRUE(is_hidden_frame(hidden));
    for (const char* shown : {"_call1", "_call", "_facto", "", "call0", "runPage"}) EXPECT_FALSE(is_hidden_frame(shown));
}

namespace {
// A stack given from the top: each frame a method name and whether its class is CFML.
struct Frame {
    const char* name;
    bool cfml;
};

jint parent_of(const std::vector<Frame>& stack, jint height, int* examined_from = nullptr) {
    int lowest = 1 << 30;
    auto name_of = [&](jint index, const char** name) {
        lowest = std::min(lowest, index);
        *name = stack[static_cast<size_t>(index)].name;
        return true;
    };
    auto is_cfml = [&](jint index) {
        lowest = std::min(lowest, index);
        return stack[static_cast<size_t>(index)].cfml;
    };
    jint parent = find_cf_parent(static_cast<jint>(stack.size()), height, name_of, is_cfml);
    if (examined_from != nullptr) *examined_from = lowest;
    return parent;
}
}  // namespace

TEST(FrameRules, CfmlParent) {
    std::vector<Frame> cf_java_java_cf = {{"a", true}, {"b", false}, {"c", false}, {"d", true}};
    EXPECT_EQ(3, parent_of(cf_java_java_cf, 4));
    EXPECT_EQ(-1, parent_of({{"a", true}, {"b", false}, {"c", false}}, 3));
    EXPECT_EQ(1, parent_of({{"a", false}, {"b", true}}, 2)) << "a Java frame at the top is searched from itself";
    EXPECT_EQ(-1, parent_of(cf_java_java_cf, 5)) << "height above the stack";
    EXPECT_EQ(-1, parent_of(cf_java_java_cf, 0)) << "no frame at that height";
    int examined = 0;
    EXPECT_EQ(3, parent_of(cf_java_java_cf, 2, &examined));
    EXPECT_EQ(2, examined) << "the two frames above the height are never looked at";
    // A hidden frame on top in a CFML class: it is stepped over, then the CFML frame below it.
    EXPECT_EQ(3, parent_of({{"_factor1", true}, {"runPage", true}, {"x", false}, {"y", true}}, 4));
    EXPECT_EQ(-1, parent_of({{"_call0", true}, {"runPage", true}}, 2));
}

TEST(FrameRules, CfmlParentGivesUpOnAnUnreadableFrame) {
    auto unreadable = [](jint, const char**) { return false; };
    auto never = [](jint) { return true; };
    EXPECT_EQ(-1, find_cf_parent(3, 3, unreadable, never));
}
