// The picker tests' main: a QCoreApplication (the main queue) and a main bundle of its own, a
// temporary folder where tests put the storyboard or take it away.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QTemporaryDir>

int main(int argc, char** argv) {
    QTemporaryDir bundle;
    qputenv("LUMARO_MAIN_BUNDLE", bundle.path().toLocal8Bit());
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
