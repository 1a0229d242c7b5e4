#pragma once
// Where things live on this desktop. The "application bundle" is the installation prefix:
// <prefix>/bin/lumerix with its resources in <prefix>/share/lumerix (the build tree has the same
// shape). The app hands the shell the two folders it needs; the shell never asks this class.
#include <QString>
#include <optional>

namespace lumerix {

class PathManager {
public:
    // True when the path lies on a removable block device (the sysfs "removable" flag).
    static bool CheckRemovableDiskPath(const QString& path);
    // Opens the file with the desktop's default application (xdg-open); true when that started.
    static bool ExecuteApplication(const QString& path);

    // ~/.local/share (the user's Application Support counterpart).
    static std::optional<QString> GetApplicationSupportPath();
    // ~/.local/share/applications.
    static std::optional<QString> GetApplicationPath();
    // ~/.local/share/doc (documentation, not the Documents folder).
    static std::optional<QString> GetDocumentPath();

    static QString GetExecutablePath();
    // The installation prefix: the executable's folder's parent.
    static QString GetAppPath();
    // GetAppPath()/<application name>/Contents.
    static QString GetAppContentsPath();
    // <prefix>/share/lumerix, where the icons and DefaultReferenceTable.plist are.
    static QString GetResourcePath();
};

}  // namespace lumerix
