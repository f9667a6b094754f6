// The one test main (test_main.cpp): GoogleTest inside the application a binary asks for, and the
// helpers that run that application's main queue.
//
// A binary picks its application once, at namespace scope in one of its files:
//     LUMARO_TEST_MAIN(.widgets = true);           // a QApplication: views, menus, images
//     LUMARO_TEST_MAIN(.ownMainBundle = true);     // LUMARO_MAIN_BUNDLE: a fresh folder
//     LUMARO_TEST_MAIN(.prepare = registerClasses); // what the program's main does first
// Without it, a QCoreApplication: the main queue has a loop and nothing draws.
#pragma once

#include <cstddef>

namespace platform::log {
class LogCapture;
}

namespace lumaro::test {

struct MainOptions {
    bool widgets = false;        // QApplication (platform plug-in: QT_QPA_PLATFORM, else offscreen)
    bool ownMainBundle = false;  // a temporary main bundle the tests fill or empty
    void (*prepare)() = nullptr;  // runs once the application exists, before the tests
};

// Lets everything already queued on the main queue run.
void flushMainQueue();
// How many error-type records `capture` holds.
size_t errorCount(const platform::log::LogCapture& capture);

}  // namespace lumaro::test

#define LUMARO_TEST_MAIN(...) \
    extern const lumaro::test::MainOptions lumaroTestMainOptions = {__VA_ARGS__}
