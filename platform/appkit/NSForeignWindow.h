// Windows of other processes as parents, on Wayland: xdg-foreign (zxdg_exporter_v2,
// zxdg_importer_v2).
//
// A process exports a top-level window of its own and gets a handle, a string that names the
// window to the compositor; another process imports the handle and makes a window of its own the
// child of that window (the compositor keeps it above its parent, and may place it over it).
//
// Both ends use the Wayland connection of the running QGuiApplication (the surfaces are its
// objects), with a queue of their own: Qt's queue never sees the protocol's events, and the round
// trips here dispatch nothing of Qt's. Everything runs on the main thread. A window's exported and
// imported objects go when its surface goes. Nothing here can end the connection with a protocol
// error: a window is used only while it is a shown top-level (xdg_toplevel) of Qt's.
#pragma once

#include <QString>

class QWindow;

namespace platform::appkit {

// Whether this process runs on a Wayland compositor that offers both halves of xdg-foreign.
// Asked once, on the first call; false without a Wayland QGuiApplication.
bool foreignWindowsOffered();

// The handle under which other processes can name `window`, a shown top-level window of this
// process. The same window keeps its handle while its surface lives. Empty, and `why`, when
// there is none.
QString exportForeignWindow(QWindow* window, QString* why = nullptr);

// Makes `window`, a shown top-level window of this process, a child of the window of another
// process that `handle` names, for as long as `window`'s surface lives. False, and `why`, when
// the compositor does not offer it or knows no window of that handle.
bool setForeignParent(QWindow* window, const QString& handle, QString* why = nullptr);

}  // namespace platform::appkit
