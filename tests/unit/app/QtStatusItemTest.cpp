#include "app/QtStatusItem.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QDir>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QTextDocument>

namespace lumerix {
namespace {

// The shipped icons, in the source tree.
const QString kResources = QStringLiteral(LUMERIX_APP_RESOURCES);

class RecordingTarget final : public MenuActionTarget {
public:
    void performMenuAction(const MenuItemRef& item) override { chosen.push_back(item); }
    std::vector<MenuItemRef> chosen;
};

// "Room A|---|Exit": a menu of these titles, "---" being a separator.
QStringList titlesOf(const char* bar) { return QString::fromUtf8(bar).split(QLatin1Char('|')); }

MenuRef menuOf(const char* bar) {
    auto menu = std::make_shared<Menu>(QStringLiteral("Lumerix"));
    for (const QString& t : titlesOf(bar)) {
        menu->addItem(t == QLatin1String("---") ? MenuItem::separatorItem()
                                                : MenuItem::initWithTitle(t, MenuAction::DeviceConnect));
    }
    return menu;
}

QStringList shownTitles(QMenu* menu) {
    QStringList out;
    for (QAction* a : menu->actions()) out << (a->isSeparator() ? QStringLiteral("---") : a->text());
    return out;
}

// A widget application on the offscreen platform for this suite only.
class QtStatusItemTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (QCoreApplication::instance()) return;
        qputenv("QT_QPA_PLATFORM", "offscreen");
        app_ = new QApplication(argc_, argv_);
    }
    static void TearDownTestSuite() {
        delete app_;
        app_ = nullptr;
    }
    void SetUp() override {
        ASSERT_NE(qobject_cast<QApplication*>(QCoreApplication::instance()), nullptr)
            << "another test left a non-widget application object behind";
    }
    static inline int argc_ = 1;
    static inline char arg0_[] = "lumerix_unit_tests";
    static inline char* argv_[] = {arg0_, nullptr};
    static inline QApplication* app_ = nullptr;
};

TEST_F(QtStatusItemTest, ClicksReachTheItemObjectsOfTheMenuAttachedLast) {
    QtStatusItem item(kResources);
    RecordingTarget target;
    item.setTarget(&target);
    item.setMenu(menuOf("Room A|Room B|---|Exit"));

    struct Step {
        const char* name;
        const char* titles;
        int click;
        bool edits;
    };
    const std::vector<Step> steps = {
        {"same titles, new objects", "Room A|Room B|---|Exit", 1, false},
        {"swapped", "Room B|Room A|---|Exit", 0, true},
        {"one left", "Room A|---|Exit", 2, true},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.name);
        const uint64_t updates = item.menuUpdates();
        const MenuRef menu = menuOf(step.titles);
        item.setMenu(menu);
        EXPECT_EQ(item.menuUpdates() - updates, step.edits ? 1u : 0u);
        EXPECT_EQ(shownTitles(item.menu()), titlesOf(step.titles));
        target.chosen.clear();
        item.menu()->actions().at(step.click)->trigger();
        ASSERT_EQ(target.chosen.size(), 1u);
        EXPECT_EQ(target.chosen[0], menu->itemAtIndex(step.click));
    }

    // A detached target hears no more clicks.
    target.chosen.clear();
    item.setTarget(nullptr);
    item.menu()->actions().at(0)->trigger();
    EXPECT_TRUE(target.chosen.empty());
}

TEST_F(QtStatusItemTest, ShowsTitlesAsTheyAreAndTracksTheOpenMenu) {
    QtStatusItem item(kResources);
    item.setMenu(menuOf("R&D Lab|---"));
    // '&' would otherwise turn into a keyboard mnemonic and vanish from the title.
    EXPECT_EQ(item.menu()->actions().at(0)->text(), QStringLiteral("R&&D Lab"));
    EXPECT_EQ(item.menu()->title(), QStringLiteral("Lumerix"));
    // A tooltip that looks like markup reaches an X11 tray as the same text in markup form.
    const QString tip = QStringLiteral("<b>Room</b> & Co\nLab");
    item.setToolTip(tip);
    QTextDocument shown;
    shown.setHtml(item.trayIcon()->toolTip());
    EXPECT_EQ(shown.toPlainText(), tip);

    EXPECT_FALSE(item.isMenuOpen());
    Q_EMIT item.menu()->aboutToShow();
    EXPECT_TRUE(item.isMenuOpen());
    Q_EMIT item.menu()->aboutToHide();
    EXPECT_FALSE(item.isMenuOpen());
}

TEST_F(QtStatusItemTest, IconChangesOnlyWhenTheImageDoes) {
    QtStatusBar bar(kResources);
    const StatusImageRef normal = bar.imageNamed(QStringLiteral("Normal_Icon"));
    const StatusImageRef disabled = bar.imageNamed(QStringLiteral("Normal_Disable_Icon"));
    ASSERT_TRUE(normal && disabled);
    EXPECT_EQ(bar.imageNamed(QStringLiteral("No_Such_Icon")), nullptr);
    normal->setTemplate(true);
    disabled->setTemplate(true);

    QtStatusItem item(kResources);
    item.setImage(disabled);
    item.setImage(disabled);
    EXPECT_EQ(item.iconUpdates(), 1u);
    EXPECT_TRUE(item.trayIcon()->icon().isMask());
    EXPECT_FALSE(item.trayIcon()->icon().pixmap(22, 22).isNull());
    item.setImage(normal);
    item.setImage(normal);
    EXPECT_EQ(item.iconUpdates(), 2u);
    item.setImage(nullptr);
    EXPECT_EQ(item.iconUpdates(), 3u);
    EXPECT_TRUE(item.trayIcon()->icon().isNull());
}

// Without a tray host the item keeps its menu, icon and tooltip, and shows them when one comes up.
TEST_F(QtStatusItemTest, ItemMadeWithoutATrayHostAppearsWithWhatItWasGiven) {
    QtStatusBar bar(kResources, false);
    EXPECT_FALSE(bar.isTrayAvailable());
    const auto item =
        std::dynamic_pointer_cast<QtStatusItem>(bar.statusItemWithLength(kVariableStatusItemLength));
    ASSERT_TRUE(item);
    const StatusImageRef normal = bar.imageNamed(QStringLiteral("Normal_Icon"));
    normal->setTemplate(true);
    item->setImage(normal);
    item->setMenu(menuOf("Room A|---|Exit"));
    item->setToolTip(QStringLiteral("Lumerix\nRoom A"));
    EXPECT_EQ(item->trayIcon(), nullptr);

    bar.trayHostAppeared();
    EXPECT_TRUE(bar.isTrayAvailable());
    QSystemTrayIcon* tray = item->trayIcon();
    ASSERT_NE(tray, nullptr);
    EXPECT_TRUE(tray->icon().isMask());
    EXPECT_FALSE(tray->icon().pixmap(22, 22).isNull());
    EXPECT_EQ(tray->toolTip(), QStringLiteral("Lumerix\nRoom A"));
    ASSERT_EQ(tray->contextMenu(), item->menu());
    EXPECT_EQ(shownTitles(item->menu()), titlesOf("Room A|---|Exit"));

    item->setToolTip(QStringLiteral("Lumerix"));
    EXPECT_EQ(tray->toolTip(), QStringLiteral("Lumerix"));
    bar.trayHostAppeared();
    EXPECT_EQ(item->trayIcon(), tray) << "made once";
}

}  // namespace
}  // namespace lumerix
