// Which display session a process runs in, and the Qt platform that goes with it.
//
// Decided from the environment before any QGuiApplication exists:
//
//   QT_QPA_PLATFORM set            that platform (a Wayland one is checked like below)
//   DISPLAY set                    X11 ("xcb"), also when WAYLAND_DISPLAY is set (XWayland):
//                                  every process of a request then shares one X server, so
//                                  windows of other processes can be embedded
//   only WAYLAND_DISPLAY set       Wayland ("wayland"), once its socket answers
//   neither                        no display
//
// A WAYLAND_DISPLAY whose socket cannot be reached is refused with a reason: Qt's Wayland
// platform would end the process on it.
#pragma once

#include <QString>

namespace platform::appkit {

enum class DisplaySession {
    None,     // no display: offscreen drawing, no real menus
    X11,      // an X server (also XWayland)
    Wayland,  // a Wayland compositor only
};

struct DisplayChoice {
    DisplaySession session = DisplaySession::None;
    // The Qt platform to ask for ("xcb", "wayland", "offscreen"...); empty: leave Qt's own.
    QString platform;
    // Why the environment's display cannot be used; empty when it can.
    QString error;
};

// Reads the environment (see above); changes nothing.
DisplayChoice chooseDisplaySession();

// Sets QT_QPA_PLATFORM to the choice's platform when it is unset, so that this process and the
// ones it starts agree. Call before the QGuiApplication is made.
void applyDisplayChoice(const DisplayChoice& choice);

// The socket WAYLAND_DISPLAY names: an absolute path, or a name in XDG_RUNTIME_DIR.
QString waylandSocketPath();
// Whether a Wayland compositor accepts a connection on the socket; `why` says what failed.
bool waylandSocketAnswers(QString* why);
// Whether something accepts a connection on the Unix socket at `path`; `why` says what failed.
bool unixSocketAnswers(const QString& path, QString* why = nullptr);

// Whether a Qt platform name is a real display ("xcb", "wayland", "wayland-egl"...), not an
// offscreen or minimal one.
bool isRealDisplayPlatform(const QString& platformName);
// The running QGuiApplication's platform name; empty without one.
QString currentPlatformName();

}  // namespace platform::appkit
