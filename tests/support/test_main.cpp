#include <gtest/gtest.h>

#include <QApplication>
#include <QTemporaryDir>
#include <algorithm>
#include <atomic>
#include <memory>

#include "platform/dispatch/dispatch.h"
#include "platform/log/os_log.h"
#include "tests/support/TestMain.h"

// Defined by LUMARO_TEST_MAIN in the binaries that want more than the defaults.
extern const lumaro::test::MainOptions lumaroTestMainOptions __attribute__((weak));

namespace lumaro::test {

void flushMainQueue() {
    std::atomic<bool> flushed{false};
    dispatch_async(dispatch_get_main_queue(), [&flushed] { flushed = true; });
    platform::dispatch::runMainLoopUntil([&flushed] { return flushed.load(); }, 20000);
}

size_t errorCount(const platform::log::LogCapture& capture) {
    const auto records = capture.records();
    return size_t(std::count_if(records.begin(), records.end(), [](const auto& record) {
        return record.type == OS_LOG_TYPE_ERROR;
    }));
}

}  // namespace lumaro::test

int main(int argc, char** argv) {
    const lumaro::test::MainOptions options =
        &lumaroTestMainOptions != nullptr ? lumaroTestMainOptions : lumaro::test::MainOptions{};
    QTemporaryDir bundle;
    if (options.ownMainBundle) {
        qputenv("LUMARO_MAIN_BUNDLE", bundle.path().toLocal8Bit());
    }
    if (options.widgets && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    const std::unique_ptr<QCoreApplication> app(options.widgets ? new QApplication(argc, argv)
                                                                : new QCoreApplication(argc, argv));
    if (options.prepare != nullptr) {
        options.prepare();
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
