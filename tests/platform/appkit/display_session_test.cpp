#include <gtest/gtest.h>

#include "platform/appkit/NSDisplaySession.h"
#include "tests/support/ScopedEnv.h"

namespace {

using platform::appkit::DisplaySession;

// Every process of a request follows the same choice: XWayland counts as X11 (so that windows
// can be embedded), and a platform asked for by name needs its display. (A Wayland socket that
// does not answer is the Wayland road's case in tests/e2e.)
TEST(DisplaySessionTest, TheEnvironmentChoosesOneSessionForTheWholeRequest) {
    struct Case {
        const char* display;
        const char* wayland;
        const char* platform;
        DisplaySession session;
        const char* chosen;
        const char* error;
    };
    for (const Case& c : std::initializer_list<Case>{
             {":5", "", "", DisplaySession::X11, "xcb", ""},
             {":5", "wayland-0", "", DisplaySession::X11, "xcb", ""},
             {"", "", "", DisplaySession::None, "offscreen", ""},
             {"", "", "xcb", DisplaySession::X11, "xcb",
              "QT_QPA_PLATFORM=xcb but DISPLAY is not set"},
             {":5", "", "wayland", DisplaySession::Wayland, "wayland",
              "QT_QPA_PLATFORM=wayland but WAYLAND_DISPLAY is not set"},
         }) {
        const lumaro::test::ScopedEnv display("DISPLAY", QByteArray(c.display)),
            wayland("WAYLAND_DISPLAY", QByteArray(c.wayland)),
            qpa("QT_QPA_PLATFORM", QByteArray(c.platform));
        const auto choice = platform::appkit::chooseDisplaySession();
        EXPECT_EQ(choice.session, c.session) << c.display << c.wayland << c.platform;
        EXPECT_EQ(choice.platform, QLatin1String(c.chosen)) << c.display << c.wayland;
        EXPECT_EQ(choice.error, QLatin1String(c.error)) << c.display << c.wayland;
    }
}

}  // namespace
