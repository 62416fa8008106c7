#include "fake_jvmti.h"

#include "log.h"

#include <gtest/gtest.h>

#include <string>

// Each level lets one more kind of line through (3, the default, shows what 2 shows: WARN and
// ERROR); a line above the level does not even evaluate its arguments.
TEST(Log, ThresholdsLetThroughTheLevelsAtOrBelowTheSetting) {
    for (auto [level, shown] : {std::pair{0, ""}, {1, "E"}, {3, "EW"}, {4, "EWD"}, {5, "EWDF"}}) {
        int evaluated = 0;
        std::string found;
        for (const std::string& line : log_lines(level, [&] {
                 LOG_ERROR("e%d", ++evaluated);
                 LOG_WARN("w%d", ++evaluated);
                 LOG_DEBUG("d%d", ++evaluated);
                 LOG_FINE("f%d", ++evaluated);
             })) {
            found += line[0];
        }
        EXPECT_EQ(shown, found) << level;
        EXPECT_EQ(found.size(), static_cast<size_t>(evaluated)) << level;
    }
}

TEST(Log, LongLinesAreCutWithANoteOfWhatWasLost) {
    EXPECT_EQ(std::string(4095, 'a') + "... Limit hit 904 characters missing\n",
              stderr_of(1, [] { log("%s", std::string(5000, 'a').c_str()); }));
    EXPECT_EQ(std::string(4095, 'b') + "\n", stderr_of(1, [] { log("%s", std::string(4096, 'b').c_str()); }))
        << "exactly 4096 characters lose the last one, without a note";
}
