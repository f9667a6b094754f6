#include <gtest/gtest.h>

#include "logging/LMLog.h"

using platform::log::LogCapture;

namespace {

constexpr const char* kMethod = "-[Test method]";

struct LevelGuard {
    ~LevelGuard() { __LMLogLevel.store(1); }
};

// Emits one message of each tag and one untagged message; answers the texts that came out.
std::vector<std::string> emitAll() {
    LogCapture capture;
    LM_LOG_DEBUG_AT(kMethod, 10, "d %d", 1);
    LM_LOG_INFO_AT(kMethod, 20, "");
    LM_LOG_ERROR_AT(kMethod, 30, "error: %d", 3);
    os_log_with_type(OS_LOG_DEFAULT, OS_LOG_TYPE_ERROR, "untagged");
    return capture.texts();
}

}  // namespace

TEST(LogLevel, StartsAtOneAndIgnoresLevelsAboveThree) {
    LevelGuard guard;
    EXPECT_EQ(__LMLogLevel.load(), 1u);
    for (const uint32_t level : {3u, 4u, static_cast<uint32_t>(-1)}) {
        LMLogSetLogLevel(level);
        EXPECT_EQ(__LMLogLevel.load(), 3u);
    }
}

TEST(LogLevel, TaggedMessagesFollowTheLevelMatrixAndTheTypesAndUntaggedIgnoreTheLevel) {
    LevelGuard guard;
    const std::string debug = " [DEBUG] -[Test method]:10 d 1";
    const std::string info = " [INFO] -[Test method]:20 ";
    const std::string error = " [ERROR] -[Test method]:30 error: 3";
    const std::vector<std::vector<std::string>> expected = {
        {debug, info, error, "untagged"},
        {info, error, "untagged"},
        {error, "untagged"},
        {"untagged"},
    };
    for (uint32_t level = 0; level <= 3; ++level) {
        LMLogSetLogLevel(level);
        EXPECT_EQ(emitAll(), expected[level]) << "level " << level;
    }
    // What the level leaves out is never formatted, nor what the enabled types leave out.
    int evaluated = 0;
    LM_LOG_ERROR(kMethod, "%d", ++evaluated);
    LMLogSetLogLevel(0);
    const uint32_t saved = platform::log::enabledTypes();
    platform::log::setEnabledTypes(platform::log::kErrorTypeBit);
    LogCapture capture;
    LM_LOG_INFO(kMethod, "%d", ++evaluated);
    LM_LOG_ERROR(kMethod, "%d", ++evaluated);
    platform::log::setEnabledTypes(0);
    LM_LOG_ERROR(kMethod, "%d", ++evaluated);
    platform::log::setEnabledTypes(saved);
    EXPECT_EQ(evaluated, 1);
    ASSERT_EQ(capture.records().size(), 1u);
    EXPECT_EQ(capture.records()[0].type, OS_LOG_TYPE_ERROR);
}
