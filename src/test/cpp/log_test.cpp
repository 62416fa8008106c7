#include "log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

using testing::MatchesRegex;

namespace {
// Runs `body` at the given level and returns what it wrote on standard error.
template <typename Body>
std::string stderr_of(int level, Body body) {
    int saved = KV_JVMTI_LOG_LEVEL;
    KV_JVMTI_LOG_LEVEL = level;
    testing::internal::CaptureStderr();
    body();
    std::string text = testing::internal::GetCapturedStderr();
    KV_JVMTI_LOG_LEVEL = saved;
    return text;
}

void log_every_level() {
    LOG_ERROR("e%d", 1);
    LOG_WARN("w");
    LOG_DEBUG("d");
    LOG_FINE("f");
}
}  // namespace

TEST(Log, LineFormatNamesTheSourceRelativeToTheProjectAndTheFunction) {
    std::string text = stderr_of(1, [] { LOG_ERROR("value %d of %s", 7, "x"); });
    EXPECT_THAT(text, MatchesRegex("ERROR Kelvane JVMTI: [0-9]+\\.[0-9]{6} src/test/cpp/log_test\\.cpp:[0-9]+:"
                                   "operator\\(\\)\\(\\) value 7 of x\n"));
}

TEST(Log, ThresholdsLetThroughTheLevelsAtOrBelowTheSetting) {
    auto words = [](const std::string& text) {
        std::string found;
        for (const char* word : {"ERROR", "WARN ", "DEBUG", "FINE "}) {
            if (text.find(std::string(word) + " Kelvane") != std::string::npos) found += word[0];
        }
        return found;
    };
    EXPECT_EQ("", words(stderr_of(0, log_every_level)));
    EXPECT_EQ("E", words(stderr_of(1, log_every_level)));
    EXPECT_EQ("EW", words(stderr_of(3, log_every_level))) << "3, the default, is WARN and ERROR";
    EXPECT_EQ("EWD", words(stderr_of(4, log_every_level)));
    EXPECT_EQ("EWDF", words(stderr_of(5, log_every_level)));
}

TEST(Log, DisabledLinesEvaluateNoArguments) {
    int evaluated = 0;
    stderr_of(1, [&] { LOG_DEBUG("%d", ++evaluated); });
    EXPECT_EQ(0, evaluated);
}

TEST(Log, LongLinesAreCutWithANoteOfWhatWasLost) {
    std::string text = stderr_of(1, [] { log("%s", std::string(5000, 'a').c_str()); });
    EXPECT_EQ(std::string(4095, 'a') + "... Limit hit 904 characters missing\n", text);
    EXPECT_EQ(std::string(4095, 'b') + "\n", stderr_of(1, [] { log("%s", std::string(4096, 'b').c_str()); }))
        << "exactly 4096 characters lose the last one, without a note";
}
