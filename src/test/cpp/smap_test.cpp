#include "smap.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

namespace {
const std::string WORKED_EXAMPLE =
    "SMAP\nindex_jsp.java\nJSP\n*S JSP\n*F\n+ 0 index.jsp\nindex.jsp\n*L\n1,3:60\n4#1:70,2\n6,2:80,3\n9:61\n*E\n";
const std::string CRLF = "SMAP\r\nx_jsp.java\r\nJSP\r\n*S JSP\r\n*F\r\n1 a.jsp\r\n*L\r\n1,3:60\r\n4:70,2\r\n*E\r\n";
const std::string STRATA =
    "SMAP\nx_jsp.java\nJSP\n*S JSP\n*F\n1 a.jsp\n*L\n1:10\n9:30\n*S Other\n*F\n1 b.tpl\n*L\n2:20\n8:30\n*E\n"
    "*O Inner\nSMAP\ny.java\nInner\n*S Inner\n*F\n1 c.in\n*L\n3:40\n*E\n*C Inner\n";
const std::string MALFORMED = "SMAP\n*L\ngarbage\n"
                              "7,:30\n"          // stops after 7: one repetition from line 0
                              "9:31,x\n"         // a bad increment keeps the default one
                              "8;2:33\n"         // ';' is no separator: entry 8 from line 0
                              "6 ,2:34\n"        // nor is a blank before ','
                              "4#,2:35\n"        // nor a missing file id
                              "\xff\xfe\x01:36\n"
                              " 3, 2: 40, 2\n"   // blanks before each number are skipped
                              "+2:+50\n-3:51\n1:52junk\n12:30\n";
const std::string BIG = "99999999999999999999";

// A minimal SMAP whose line section holds the given entries.
std::string lines(const std::string& entries) { return "SMAP\nx_jsp.java\nJSP\n*S JSP\n*L\n" + entries + "*E\n"; }
}  // namespace

// Each row: the text, a Java line, the template line it maps to. The prepared map must answer as
// the text does.
TEST(Smap, LinesMapThroughEveryRuleOfTheText) {
    const struct {
        std::string text;
        jint line, expected;
        const char* why = "";
    } cases[] = {
        {WORKED_EXAMPLE, 61, 2, "the first covering entry wins"}, {WORKED_EXAMPLE, 71, 4, "file id, increment"},
        {WORKED_EXAMPLE, 84, 7, "repeat with increment"},
        {WORKED_EXAMPLE.substr(5), 61, 61, "without its header the text is no SMAP"},
        {"", 12, 12}, {"SMA", 12, 12}, {"SMAP", 12, 12}, {"SMAX\n*L\n3:12\n", 12, 12},
        {"SMAP*L3:12", 12, 12, "without a newline all is one header line"},
        {"SMAP\n*L\n3:12", 12, 3, "the last line needs no newline"},
        {CRLF, 71, 4, "CRLF"}, {CRLF, 0, 0, "the file section stays closed under CRLF"},
        {lines("5,3:20,0\n"), 20, 5, "an increment of zero covers its start"},
        {lines("5,3:20,0\n"), 21, 21, "and nothing else"},
        {lines("5,3:20,-2\n"), 18, 18, "nor does a negative one go backwards"},
        {lines("5,0:20\n"), 20, 20, "a repeat count below one covers nothing"},
        {lines("5,-3:20,0\n"), 20, 20, "whatever the increment"},
        {lines("5,3:20,2\n"), 19, 19, "lines just before the start are not repetition zero"},
        {lines("5,3:20,2\n"), 21, 5}, {lines("5,3:20,2\n"), 25, 7}, {lines("5,3:20,2\n"), 26, 26},
        {lines("5\n"), 0, 5, "defaults: one repetition from Java line 0"}, {lines("5\n"), 1, 1},
        {"SMAP\n5:20\n*L\n6:21\n", 20, 20, "entries before *L are no entries"},
        {"SMAP\n*L\n*E\n5:20\n", 20, 20}, {"SMAP\n*L\n*F\n5:20\n", 20, 20}, {"SMAP\n*L\n*S\n5:20\n", 20, 20},
        {"SMAP\n*L\n*V\n5:20\n", 20, 20}, {"SMAP\n*L\n*E\n*L\n5:20\n", 20, 5, "*L opens again"},
        {"SMAP\n*L\n*X\n*O embedded\n*C embedded\n5:20\n", 20, 5, "unknown markers keep the section open"},
        {"SMAP\n*X\n5:20\n", 20, 20, "and keep it closed"},
        {"SMAP\n*L\n*\n5:20\n", 20, 5, "a lone * closes nothing"}, {"SMAP\n*\n5:20\n", 20, 20, "nor opens"},
        {"SMAP\n *L\n5:20\n", 20, 20, "a marker starts its line"},
        {STRATA, 20, 2, "every stratum's line section is searched"}, {STRATA, 40, 3, "embedded maps too"},
        {STRATA, 30, 9, "in text order"},
        {MALFORMED, 0, 7}, {MALFORMED, 31, 9}, {MALFORMED, 32, 32}, {MALFORMED, 33, 33},
        {MALFORMED, 34, 34}, {MALFORMED, 35, 35}, {MALFORMED, 36, 36}, {MALFORMED, 41, 3},
        {MALFORMED, 43, 4}, {MALFORMED, 50, 2}, {MALFORMED, 51, -3}, {MALFORMED, 52, 1},
        {MALFORMED, 30, 12, "broken entries do not end the section"},
        {lines("1," + BIG + ":10\n"), INT_MAX, INT_MAX - 9, "numbers saturate at the int range"},
        {lines("5:" + BIG + "\n"), INT_MAX, 5}, {lines("5,2:10," + BIG + "\n"), INT_MAX, 5},
        {lines("-" + BIG + ",2:-" + BIG + "\n"), INT_MIN, INT_MIN},
        {lines("-" + BIG + ",2:-" + BIG + "\n"), INT_MIN + 1, INT_MIN + 1},
        {lines("5,3:-2147483648,2147483647\n"), -1, 6}, {lines("5,3:-2147483648,2147483647\n"), INT_MAX, 7},
        {lines("2147483647," + BIG + ":2147483647\n"), INT_MAX, INT_MAX},
        {lines(std::string(10000, '9') + ":" + std::string(10000, '9') + "\n"), 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.why << " | line " << c.line << " of " << c.text);
        EXPECT_EQ(c.expected, get_jsp_line_from_smap(c.text.c_str(), c.line));
        EXPECT_EQ(c.expected, SourceMap(c.text.c_str()).map(c.line));
    }
    EXPECT_EQ(12, get_jsp_line_from_smap(nullptr, 12));
    EXPECT_TRUE(SourceMap(nullptr).empty());
}
