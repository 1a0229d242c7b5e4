#pragma once
// Where the desktop keeps things on Linux. Application Support is the generic data folder
// (~/.local/share, honouring XDG_DATA_HOME); resources are share/lumerix beside the prefix of the
// running binary, which holds for both the build tree (<build>/bin) and an install (<prefix>/bin).
#include <QString>

namespace lumerix {

struct LinuxPaths {
    static QString applicationSupportPath();
    // The folder holding the running executable.
    static QString executableDir();
    static QString resourcesPath();
    // The resources folder for an executable in binDir.
    static QString resourcesPathForBinDir(const QString& binDir);
};

}  // namespace lumerix
