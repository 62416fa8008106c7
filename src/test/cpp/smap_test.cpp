#include "smap.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

namespace {
const char* const WORKED_EXAMPLE =
    "SMAP\nindex_jsp.java\nJSP\n*S JSP\n*F\n+ 0 index.jsp\nindex.jsp\n*L\n1,3:60\n4#1:70,2\n6,2:80,3\n9:61\n*E\n";

// A minimal SMAP whose line section holds the given entries.
std::string lines(const std::string& entries) { return "SMAP\nx_jsp.java\nJSP\n*S JSP\n*L\n" + entries + "*E\n"; }

jint map(const std::string& smap, jint line) { return get_jsp_line_from_smap(smap.c_str(), line); }
}  // namespace

TEST(Smap, WorkedExample) {
    EXPECT_EQ(2, get_jsp_line_from_smap(WORKED_EXAMPLE, 61)) << "the first covering entry wins";
    EXPECT_EQ(4, get_jsp_line_from_smap(WORKED_EXAMPLE, 71));
    EXPECT_EQ(7, get_jsp_line_from_smap(WORKED_EXAMPLE, 84));
    EXPECT_EQ(75, get_jsp_line_from_smap(WORKED_EXAMPLE, 75));
    EXPECT_EQ(5, get_jsp_line_from_smap(WORKED_EXAMPLE, 5));
    EXPECT_EQ(61, get_jsp_line_from_smap(WORKED_EXAMPLE + 5, 61)) << "without its header the text is no SMAP";
}

TEST(Smap, WholeTextShapes) {
    EXPECT_EQ(12, get_jsp_line_from_smap("", 12));
    EXPECT_EQ(12, get_jsp_line_from_smap(nullptr, 12));
    EXPECT_EQ(12, get_jsp_line_from_smap("SMA", 12));
    EXPECT_EQ(12, get_jsp_line_from_smap("SMAX\n*L\n3:12\n", 12));
    EXPECT_EQ(12, get_jsp_line_from_smap("SMAP", 12));
    EXPECT_EQ(12, get_jsp_line_from_smap("SMAP*L3:12", 12)) << "without a newline all is one header line";
    EXPECT_EQ(3, get_jsp_line_from_smap("SMAP\n*L\n3:12", 12)) << "the last line needs no newline";
    EXPECT_EQ(3, get_jsp_line_from_smap("SMAP\n*L\n3:12\n*E", 12));
    EXPECT_EQ(12, get_jsp_line_from_smap("SMAP\n*L\n*E", 12));
    EXPECT_EQ(12, get_jsp_line_from_smap("SMAP\n\n\n*L\n\n", 12)) << "empty lines are no entries";

    const char* crlf = "SMAP\r\nx_jsp.java\r\nJSP\r\n*S JSP\r\n*F\r\n1 a.jsp\r\n*L\r\n1,3:60\r\n4:70,2\r\n*E\r\n";
    EXPECT_EQ(3, get_jsp_line_from_smap(crlf, 62));
    EXPECT_EQ(4, get_jsp_line_from_smap(crlf, 71));
    EXPECT_EQ(72, get_jsp_line_from_smap(crlf, 72));
    EXPECT_EQ(0, get_jsp_line_from_smap(crlf, 0)) << "the file section stays closed under CRLF";
}

TEST(Smap, RepeatAndIncrementEdges) {
    const std::string zero_increment = lines("5,3:20,0\n");
    EXPECT_EQ(5, map(zero_increment, 20));
    EXPECT_EQ(21, map(zero_increment, 21));
    EXPECT_EQ(22, map(zero_increment, 22));

    const std::string negative_increment = lines("5,3:20,-2\n");
    EXPECT_EQ(5, map(negative_increment, 20));
    for (jint line : {16, 18, 19, 21, 22}) EXPECT_EQ(line, map(negative_increment, line)) << line;

    for (const char* entry : {"5,0:20\n", "5,-1:20\n", "5,-3:20,0\n"}) {
        EXPECT_EQ(20, map(lines(entry), 20)) << "a repeat count below one covers nothing: " << entry;
        EXPECT_EQ(0, map(lines(entry), 0)) << entry;
    }

    const std::string stepped = lines("5,3:20,2\n");
    EXPECT_EQ(19, map(stepped, 19)) << "lines just before the start are not repetition zero";
    EXPECT_EQ(5, map(stepped, 21));
    EXPECT_EQ(6, map(stepped, 22));
    EXPECT_EQ(7, map(stepped, 25));
    EXPECT_EQ(26, map(stepped, 26));

    EXPECT_EQ(5, map(lines("5\n"), 0)) << "defaults: one repetition from Java line 0";
    EXPECT_EQ(1, map(lines("5\n"), 1));
}

TEST(Smap, SectionMarkers) {
    EXPECT_EQ(20, map("SMAP\n5:20\n*L\n6:21\n", 20)) << "entries before *L are no entries";
    EXPECT_EQ(6, map("SMAP\n5:20\n*L\n6:21\n", 21));
    for (char closer : {'E', 'F', 'S', 'V'}) {
        EXPECT_EQ(20, map(std::string("SMAP\n*L\n*") + closer + "\n5:20\n", 20)) << closer;
        EXPECT_EQ(5, map(std::string("SMAP\n*L\n*") + closer + "\n*L\n5:20\n", 20)) << closer;
    }
    EXPECT_EQ(5, map("SMAP\n*L\n*X\n*O embedded\n*C embedded\n5:20\n", 20)) << "unknown markers keep the section open";
    EXPECT_EQ(20, map("SMAP\n*X\n5:20\n", 20)) << "and keep it closed";
    EXPECT_EQ(5, map("SMAP\n*L\n*\n5:20\n", 20)) << "a lone * closes nothing";
    EXPECT_EQ(20, map("SMAP\n*\n5:20\n", 20)) << "and opens nothing";
    EXPECT_EQ(20, map("SMAP\n *L\n5:20\n", 20)) << "a marker starts its line";

    const char* strata =
        "SMAP\nx_jsp.java\nJSP\n*S JSP\n*F\n1 a.jsp\n*L\n1:10\n9:30\n"
        "*S Other\n*F\n1 b.tpl\n*L\n2:20\n8:30\n*E\n"
        "*O Inner\nSMAP\ny.java\nInner\n*S Inner\n*F\n1 c.in\n*L\n3:40\n*E\n*C Inner\n";
    EXPECT_EQ(1, get_jsp_line_from_smap(strata, 10));
    EXPECT_EQ(2, get_jsp_line_from_smap(strata, 20)) << "every stratum's line section is searched";
    EXPECT_EQ(3, get_jsp_line_from_smap(strata, 40)) << "embedded maps too";
    EXPECT_EQ(9, get_jsp_line_from_smap(strata, 30)) << "in text order";
}

TEST(Smap, MalformedEntriesParseAsFarAsTheyCan) {
    const std::string smap = lines(
        "garbage\n"
        "7,:30\n"      // stops after 7: one repetition from line 0
        "9:31,x\n"     // a bad increment keeps the default one
        "8;2:33\n"     // ';' is no separator: entry 8 from line 0
        "6 ,2:34\n"    // nor is a blank before ','
        "4#,2:35\n"    // so does a missing file id
        "\xff\xfe\x01:36\n"
        " 3, 2: 40, 2\n"  // blanks before each number are skipped
        "+2:+50\n"
        "-3:51\n"
        "1:52junk\n"
        "12:30\n");
    EXPECT_EQ(7, map(smap, 0));
    EXPECT_EQ(9, map(smap, 31));
    EXPECT_EQ(32, map(smap, 32));
    for (jint line : {33, 34, 35, 36}) EXPECT_EQ(line, map(smap, line)) << line;
    EXPECT_EQ(3, map(smap, 41));
    EXPECT_EQ(4, map(smap, 43));
    EXPECT_EQ(2, map(smap, 50));
    EXPECT_EQ(-3, map(smap, 51));
    EXPECT_EQ(1, map(smap, 52));
    EXPECT_EQ(12, map(smap, 30)) << "broken entries do not end the section";
}

TEST(Smap, HugeNumbersAndBoundaries) {
    const std::string huge = "99999999999999999999";
    EXPECT_EQ(INT_MAX - 9, map(lines("1," + huge + ":10\n"), INT_MAX));
    EXPECT_EQ(5, map(lines("5:" + huge + "\n"), INT_MAX)) << "numbers saturate at the int range";
    EXPECT_EQ(INT_MIN, map(lines("-" + huge + ",2:-" + huge + "\n"), INT_MIN));
    EXPECT_EQ(INT_MIN + 1, map(lines("-" + huge + ",2:-" + huge + "\n"), INT_MIN + 1));
    EXPECT_EQ(5, map(lines("5,2:10," + huge + "\n"), INT_MAX));
    EXPECT_EQ(9, map(lines("5,2:10," + huge + "\n"), 9));

    const std::string wide = lines("5,3:-2147483648,2147483647\n");
    EXPECT_EQ(5, map(wide, INT_MIN));
    EXPECT_EQ(6, map(wide, -1));
    EXPECT_EQ(7, map(wide, INT_MAX));

    EXPECT_EQ(INT_MAX, map(lines("2147483647," + huge + ":2147483647\n"), INT_MAX));
    EXPECT_EQ(0, map(lines(std::string(10000, '9') + ":" + std::string(10000, '9') + "\n"), 0));
    // Template lines past the int range have no right answer; they only must not crash.
    map(lines("2147483647," + huge + ":0\n"), INT_MAX);
    map(lines(huge + "#" + huge + "," + huge + ":" + huge + "," + huge + "\n"), INT_MAX);
}

TEST(Smap, APreparedMapAnswersAsTheTextDoes) {
    const char* texts[] = {WORKED_EXAMPLE, "SMAP\n*L\n5,3:20,0\n5,0:30\n7#2,2:40,3\r\n*S X\n9:41\n*L\n1:-1\n",
                           "no smap\n*L\n1:1\n", "SMAP\n*L\n3,2147483647:2147483640,5\n-4,-2:-8,-1\n"};
    for (const char* text : texts) {
        SourceMap prepared(text);
        for (jint line = -10; line < 100; line++) {
            EXPECT_EQ(get_jsp_line_from_smap(text, line), prepared.map(line)) << text << " line " << line;
        }
        for (jint line : {INT_MAX, INT_MIN, 2147483641, 2147483646}) {
            EXPECT_EQ(get_jsp_line_from_smap(text, line), prepared.map(line)) << text << " line " << line;
        }
    }
}
