#include "frame_rules.h"
#include "line_table.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

// Each row is checked against the plain search and against the prepared index, which reports
// each entry's line times ten and -7 where no entry covers the location.
TEST(LineTable, ExactStartElseGreatestStartBelowInTableOrder) {
    const std::vector<jvmtiLineNumberEntry> sorted = {{0, 10}, {4, 11}, {9, 12}}, equal = {{0, 7}, {0, 8}},
                                            unsorted = {{8, 30}, {0, 10}, {4, 20}}, late = {{2, 20}, {5, 21}}, none;
    const struct {
        const std::vector<jvmtiLineNumberEntry>& table;
        jlocation location;
        jint line;
    } cases[] = {{sorted, 4, 11}, {sorted, 6, 11}, {sorted, 100, 12}, {late, 1, -1}, {none, 0, -1},
                 {equal, 3, 7},   {equal, 0, 7},   {unsorted, 6, 20}, {unsorted, 9, 30}};
    for (const auto& c : cases) {
        const jint count = static_cast<jint>(c.table.size());
        EXPECT_EQ(c.line, find_line(c.table.data(), count, c.location)) << "row " << &c - cases;
        std::vector<jint> mapped;
        for (const jvmtiLineNumberEntry& entry : c.table) mapped.push_back(entry.line_number * 10);
        LineIndex index(c.table.data(), count, mapped.data(), -7);
        EXPECT_EQ(c.line == -1 ? -7 : c.line * 10, index.line_at(c.location)) << "row " << &c - cases;
    }
}

// Class signatures shorter than the "$cf;" suffix are among the Java ones.
TEST(FrameRules, ClassesAndHiddenFrames) {
    for (const char* cfml : {"Lcfindex2ecfm123456;", "Lcfmycomp2ecfc98765$funcGETDATA;", "Lorg/x/page_cfm$cf;",
                             "Lcf/deep/x2ecfm;"}) {
        EXPECT_STREQ("CFML", frame_language_name(classify_class_signature(cfml))) << cfml;
    }
    for (const char* java : {"Lcfg/Util;", "Lcom/x/Foo2ecfm;", "Ljava/lang/String;", "", "L", "[Lcfindex2ecfm1;"}) {
        EXPECT_STREQ("JAVA", frame_language_name(classify_class_signature(java))) << java;
    }
    EXPECT_STREQ("UNKNOWN", frame_language_name(0));
    EXPECT_STREQ("UNKNOWN", frame_language_name(7));
    // Hidden frames are prefix matches only.
    for (const char* hidden : {"_call0", "_call01", "_factor12", "_factor"}) EXPECT_TRUE(is_hidden_frame(hidden));
    for (const char* shown : {"_call1", "_call", "_facto", "", "call0"}) EXPECT_FALSE(is_hidden_frame(shown));
}

namespace {
// A stack given from the top: each frame a method name, whether its class is CFML and whether
// the VM can tell its name.
struct Frame {
    const char* name;
    bool cfml;
    bool readable = true;
};

jint parent_of(const std::vector<Frame>& stack, jint height) {
    auto name_of = [&](jint index, const char** name) {
        *name = stack.at(static_cast<size_t>(index)).name;
        return stack.at(static_cast<size_t>(index)).readable;
    };
    auto is_cfml = [&](jint index) { return stack.at(static_cast<size_t>(index)).cfml; };
    return find_cf_parent(static_cast<jint>(stack.size()), height, name_of, is_cfml);
}
}  // namespace

TEST(FrameRules, CfmlParent) {
    const std::vector<Frame> cf_java_java_cf = {{"a", true}, {"b", false}, {"c", false}, {"d", true}};
    const struct {
        std::vector<Frame> stack;
        jint height, parent;
        const char* why;
    } cases[] = {
        {cf_java_java_cf, 4, 3, "the next CFML frame below"},
        {{{"a", true}, {"b", false}, {"c", false}}, 3, -1, "none below"},
        {{{"a", false}, {"b", true}}, 2, 1, "a Java frame at the top is searched from itself"},
        {cf_java_java_cf, 5, -1, "height above the stack"},
        {cf_java_java_cf, 0, -1, "no frame at that height"},
        {{{"_factor1", true}, {"runPage", true}, {"x", false}, {"y", true}}, 4, 3, "a hidden frame is stepped over"},
        {{{"_call0", true}, {"runPage", true}}, 2, -1, "then the CFML frame below it"},
        {{{"a", true, false}, {"b", true}, {"c", true}}, 3, -1, "an unreadable frame ends the search"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.parent, parent_of(c.stack, c.height)) << c.why;
}
