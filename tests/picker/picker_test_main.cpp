// The picker tests' main: a QCoreApplication (the main queue), and a main bundle of its own in a
// temporary folder, so that tests can put the storyboard there or take it away.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QTemporaryDir>

#include "tests/picker/PickerTestBundle.h"

namespace lumaro::test {
namespace {
QString bundlePath;
}
QString pickerMainBundle() {
    return bundlePath;
}
}  // namespace lumaro::test

int main(int argc, char** argv) {
    QTemporaryDir bundle;
    lumaro::test::bundlePath = bundle.path();
    qputenv("LUMARO_MAIN_BUNDLE", bundle.path().toLocal8Bit());
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
