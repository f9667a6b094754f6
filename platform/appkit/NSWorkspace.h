// The workspace: icons for files and folders.
//
// An application folder's icon is the image its Info.json names under "CFBundleIconFile"
// (relative to the folder or its Resources folder), else the folder's "icon.png". Anything
// without an icon of its own gets a generic icon: the icon theme's, when a GUI application runs
// and the theme has one, else a drawn placeholder. A missing or unreadable icon file is never
// fatal: one error line and the placeholder.
#pragma once

#include <QImage>
#include <QString>
#include <memory>

class NSWorkspace {
public:
    static std::shared_ptr<NSWorkspace> sharedWorkspace();

    // iconForFile:. An empty path (no file at all) answers the generic icon, silently.
    QImage iconForFile(const QString& fullPath) const;

    // The drawn placeholder (32 by 32 pixels); the same pixels on every call.
    static QImage placeholderIcon();
};
