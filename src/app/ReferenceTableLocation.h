#pragma once
// Where the reference table and the list that seeds it live. A user's first table is seeded from
// the demo's example rooms with --demo; otherwise from a site-wide DefaultReferenceTable.plist in
// the XDG config directories (/etc/xdg/lumerix/, so an IT department seeds its rooms for every
// user); otherwise from the shipped, empty list. The demo keeps its table apart from the user's.
#include <QString>

namespace lumerix {

class ReferenceTableLocation {
public:
    // The folder holding the DefaultReferenceTable.plist to use (ShellEnvironment::resourcePath).
    static QString defaultFolder(bool demo, const QString& resources);
    // The Application Support folder of the demo: the cache, so its rooms never reach the user's table.
    static QString demoSupportFolder();
    // The user's saved table, as the shell reads and writes it.
    static QString savedTable(const QString& applicationSupport);
};

}  // namespace lumerix
