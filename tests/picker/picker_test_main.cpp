// The picker tests' main: a QCoreApplication (the main queue) and a main bundle of its own, a
// temporary folder where tests put the storyboard or take it away, and the picker's classes
// registered.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QTemporaryDir>

#include "picker/LMBroadcastActivityExtensionNSViewController.h"

int main(int argc, char** argv) {
    QTemporaryDir bundle;
    qputenv("LUMARO_MAIN_BUNDLE", bundle.path().toLocal8Bit());
    QCoreApplication app(argc, argv);
    LMBroadcastPickerRegisterClasses();  // as the picker's program does
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
