#include <gtest/gtest.h>

#include "platform/log/os_log.h"

using platform::log::formatMessage;
using platform::log::LogCapture;

TEST(LogFormat, RendersEachConversionAsAReaderExpects) {
    EXPECT_EQ(formatMessage(" [INFO] %{public}s:%d ", {"-[A b]", 42}), " [INFO] -[A b]:42 ");
    EXPECT_EQ(formatMessage("%s|%i|%u|%%|%c", {"x", -3, 7u, 'z'}), "x|-3|7|%|z");
    EXPECT_EQ(formatMessage("%lld %llu", {int64_t{-5000000000}, uint64_t{5000000000}}),
              "-5000000000 5000000000");
    EXPECT_EQ(formatMessage("%.2f %g", {1.005, 0.5}), "1.00 0.5");
    EXPECT_EQ(formatMessage("%{private}s", {"secret"}), "<private>");
    EXPECT_EQ(formatMessage("%@ and %@", {QString("q"), nullptr}), "q and (null)");
    EXPECT_EQ(formatMessage("%p", {nullptr}), "0x0");
}

TEST(LogFormat, NarrowsPlainIntegerConversionsTo32Bits) {
    EXPECT_EQ(formatMessage("%d", {int64_t{0x100000005}}), "5");
    EXPECT_EQ(formatMessage("%i", {int64_t{0xFFFFFFFF}}), "-1");
}

TEST(LogFormat, NeverReadsBeyondItsArguments) {
    EXPECT_EQ(formatMessage("%s %d %@", {"only"}), "only (missing) (missing)");
    EXPECT_EQ(formatMessage("none", {1, 2, 3}), "none");
    EXPECT_EQ(formatMessage("trailing %", {}), "trailing %");
    EXPECT_EQ(formatMessage("%{public", {"x"}), "%{public");
    EXPECT_EQ(formatMessage("%q", {}), "%q");
}

// (An error's description through %@: the file store's clean-up tests; the enabled types'
// gate: the logging tests.)
TEST(Log, TheDisabledHandleNeitherEvaluatesNorWrites) {
    LogCapture capture;
    int evaluated = 0;
    os_log_with_type(OS_LOG_DISABLED, OS_LOG_TYPE_ERROR, "%d", ++evaluated);
    NSLog("plain %s", "line");
    EXPECT_EQ(evaluated, 0);
    ASSERT_EQ(capture.records().size(), 1u);
    EXPECT_TRUE(capture.records()[0].isNSLog);
    EXPECT_EQ(capture.records()[0].text, "plain line");
}
