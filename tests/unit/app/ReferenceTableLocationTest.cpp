#include "app/ReferenceTableLocation.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

namespace lumerix {
namespace {

// Points XDG_CONFIG_HOME and XDG_CONFIG_DIRS at folders of a temporary directory for one test.
class ConfigDirs {
public:
    ConfigDirs() : oldHome_(qgetenv("XDG_CONFIG_HOME")), oldDirs_(qgetenv("XDG_CONFIG_DIRS")) {
        qputenv("XDG_CONFIG_HOME", path(QStringLiteral("home")).toUtf8());
        qputenv("XDG_CONFIG_DIRS",
                (path(QStringLiteral("site1")) + QLatin1Char(':') + path(QStringLiteral("site2"))).toUtf8());
    }
    ~ConfigDirs() {
        qputenv("XDG_CONFIG_HOME", oldHome_);
        qputenv("XDG_CONFIG_DIRS", oldDirs_);
    }
    QString path(const QString& name) const { return root_.path() + QLatin1Char('/') + name; }
    void seed(const QString& name) const {
        QDir().mkpath(path(name) + QLatin1String("/lumerix"));
        QFile f(path(name) + QLatin1String("/lumerix/DefaultReferenceTable.plist"));
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    }

private:
    QTemporaryDir root_;
    QByteArray oldHome_, oldDirs_;
};

TEST(ReferenceTableLocationTest, DefaultListComesFromDemoSiteOrShippedFolder) {
    const QString resources = QStringLiteral("/opt/lumerix/share/lumerix");
    const QString home = QStringLiteral("home"), site1 = QStringLiteral("site1"),
                  site2 = QStringLiteral("site2");
    const struct {
        const char* name;
        bool demo;
        QStringList seeded;
        QString expected;  // a config folder's name, or a path under resources
    } cases[] = {
        {"shipped list without a site-wide one", false, {}, resources},
        {"site-wide list", false, {site2}, site2},
        {"first config directory wins", false, {site1, site2}, site1},
        {"the user's own config comes first", false, {home, site1}, home},
        {"demo ignores the site-wide list", true, {site1}, resources + QLatin1String("/demo")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ConfigDirs dirs;
        for (const QString& s : c.seeded) dirs.seed(s);
        const QString expected = c.expected.startsWith(QLatin1Char('/'))
                                     ? c.expected
                                     : dirs.path(c.expected) + QLatin1String("/lumerix");
        EXPECT_EQ(ReferenceTableLocation::defaultFolder(c.demo, resources), expected);
    }
}

}  // namespace
}  // namespace lumerix
