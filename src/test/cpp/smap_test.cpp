#include "smap.h"

#include <gtest/gtest.h>

namespace {
const char* const WORKED_EXAMPLE =
    "SMAP\nindex_jsp.java\nJSP\n*S JSP\n*F\n+ 0 index.jsp\nindex.jsp\n*L\n1,3:60\n4#1:70,2\n6,2:80,3\n9:61\n*E\n";
}

TEST(Smap, WorkedExample) {
    EXPECT_EQ(2, get_jsp_line_from_smap(WORKED_EXAMPLE, 61)) << "the first covering entry wins";
    EXPECT_EQ(4, get_jsp_line_from_smap(WORKED_EXAMPLE, 71));
    EXPECT_EQ(7, get_jsp_line_from_smap(WORKED_EXAMPLE, 84));
    EXPECT_EQ(75, get_jsp_line_from_smap(WORKED_EXAMPLE, 75));
    EXPECT_EQ(5, get_jsp_line_from_smap(WORKED_EXAMPLE, 5));
    EXPECT_EQ(61, get_jsp_line_from_smap(WORKED_EXAMPLE + 5, 61)) << "without its header the text is no SMAP";
}
