// The framework's lookup from a bundle identifier to the application's localized display name.
//
// On this desktop an application's display name lives in its desktop entry, "<bundle-id>.desktop",
// found in the "applications" folder of the user's data directory ($XDG_DATA_HOME, or
// ~/.local/share) and then of each system data directory ($XDG_DATA_DIRS, or
// /usr/local/share:/usr/share). The first entry found wins.
#pragma once

#include <QString>

namespace LMExtensions {

// The entry's "Name[lang_COUNTRY]", then "Name[lang]" for the process's locale, else "Name".
// A null QString (nil) when no entry or no name is found, or when the identifier cannot name a
// desktop entry (empty, or holding a "/"). A "/" inside the name becomes "-", so the name stays
// one path component wherever it is used in a file name.
QString _lmLocalizedAppNameFromBundleID(const QString& bundleID);

}  // namespace LMExtensions
