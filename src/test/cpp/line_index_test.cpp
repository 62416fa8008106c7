#include "line_table.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

// The prepared index must answer exactly as the plain search over the table, whatever the order,
// duplicates and gaps of the table: tables are checked against find_line at random.
TEST(LineIndex, AnswersAsTheTableSearchDoes) {
    std::mt19937 random(20261123);
    for (int round = 0; round < 300; round++) {
        jint count = static_cast<jint>(random() % 12);
        std::vector<jvmtiLineNumberEntry> table;
        std::vector<jint> mapped;
        for (jint i = 0; i < count; i++) {
            table.push_back(jvmtiLineNumberEntry{static_cast<jlocation>(random() % 20), static_cast<jint>(random() % 50)});
            mapped.push_back(table.back().line_number * 10);
        }
        LineIndex index(table.data(), count, mapped.data(), -7);
        for (jlocation location = -2; location < 24; location++) {
            jint plain = find_line(table.data(), count, location);
            EXPECT_EQ(plain == -1 ? -7 : plain * 10, index.line_at(location)) << "round " << round << " at " << location;
        }
    }
}
