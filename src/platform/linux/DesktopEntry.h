#pragma once
// Desktop entries of installed applications, looked up as launchers look them up: in the
// "applications" folder of XDG_DATA_HOME, then of each XDG_DATA_DIRS entry.
#include <QString>

namespace lumerix {

// The path of "<desktopFileId>.desktop", or empty when no data directory holds it.
QString desktopEntryPath(const QString& desktopFileId);

}  // namespace lumerix
