#include "app/TrayMenuPresenter.h"

#include <gtest/gtest.h>

#include <QStringList>

namespace lumerix {
namespace {

// Applies every edit to a list of rows and records the edits, so a test can check both the result
// and how much the desktop was disturbed.
class RecordingView final : public TrayMenuView {
public:
    void insertEntry(int index, const TrayEntry& entry) override {
        rows.insert(rows.begin() + index, entry);
        edits << QStringLiteral("insert %1").arg(index);
    }
    void updateEntry(int index, const TrayEntry& entry) override {
        rows.at(static_cast<size_t>(index)) = entry;
        edits << QStringLiteral("update %1").arg(index);
    }
    void removeEntry(int index) override {
        rows.erase(rows.begin() + index);
        edits << QStringLiteral("remove %1").arg(index);
    }
    QStringList titles() const {
        QStringList out;
        for (const TrayEntry& e : rows) out << (e.separator ? QStringLiteral("---") : e.title);
        return out;
    }
    std::vector<TrayEntry> rows;
    QStringList edits;
};

// A fresh Menu built the way the shell builds it: new item objects every time.
// "---" is a separator; the last two entries are About and Exit.
MenuRef menuOf(const QStringList& titles) {
    auto menu = std::make_shared<Menu>(QStringLiteral("Lumerix"));
    for (const QString& t : titles) {
        if (t == QLatin1String("---")) {
            menu->addItem(MenuItem::separatorItem());
        } else if (t == QLatin1String("About")) {
            menu->addItem(MenuItem::initWithTitle(t, MenuAction::ShowAbout));
        } else if (t == QLatin1String("Exit")) {
            menu->addItem(MenuItem::initWithTitle(t, MenuAction::QuitApp));
        } else {
            menu->addItem(MenuItem::initWithTitle(t, MenuAction::DeviceConnect));
        }
    }
    return menu;
}

QStringList fixed(QStringList receivers) {
    return receivers << QStringLiteral("Ref") << QStringLiteral("---") << QStringLiteral("About")
                     << QStringLiteral("Exit");
}

TEST(TrayMenuPresenter, EditsOnlyWhatChanged) {
    struct Case {
        const char* name;
        QStringList before;
        QStringList after;
        const char* edits;
    };
    const QString a = QStringLiteral("Room A"), b = QStringLiteral("Room B"), c = QStringLiteral("Room C");
    const std::vector<Case> cases = {
        {"unchanged", fixed({a, b}), fixed({a, b}), ""},
        {"first receiver appears on top", fixed({}), fixed({a}), "insert 0"},
        {"receiver joins in the middle", fixed({a, c}), fixed({a, b, c}), "insert 1"},
        {"last receiver leaves", fixed({a}), fixed({}), "remove 0"},
        {"two swap places", fixed({a, b, c}), fixed({b, a, c}), "update 0, update 1"},
        {"renamed", fixed({a}), fixed({c}), "update 0"},
        {"all gone at once", fixed({a, b, c}), fixed({}), "remove 0, remove 0, remove 0"},
        {"separator turns into a title", {a, QStringLiteral("---")}, {a, b}, "update 1"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        RecordingView view;
        TrayMenuPresenter presenter(view);
        presenter.apply(menuOf(c.before));
        ASSERT_EQ(view.titles(), c.before);
        view.edits.clear();
        EXPECT_EQ(presenter.apply(menuOf(c.after)), *c.edits != '\0');
        EXPECT_EQ(view.edits.join(QStringLiteral(", ")), QString::fromUtf8(c.edits));
        EXPECT_EQ(view.titles(), c.after);
    }
}

TEST(TrayMenuPresenter, RandomRebuildsAlwaysEndEqualToTheModel) {
    // Any sequence of models must leave the view showing exactly the last one.
    RecordingView view;
    TrayMenuPresenter presenter(view);
    uint32_t seed = 12345;
    auto next = [&seed] { return seed = seed * 1103515245u + 12345u, (seed >> 16) & 0x7fff; };
    for (int round = 0; round < 300; ++round) {
        QStringList receivers;
        const int n = static_cast<int>(next() % 7);
        for (int i = 0; i < n; ++i) receivers << QStringLiteral("R%1").arg(next() % 5);
        const QStringList titles = fixed(receivers);
        presenter.apply(menuOf(titles));
        ASSERT_EQ(view.titles(), titles) << "round " << round;
    }
}

TEST(TrayMenuPresenter, TheSameMenuPatchedInPlaceIsShownAgain) {
    // The shell keeps one Menu: an unchanged revision costs nothing, a new one is compared.
    RecordingView view;
    TrayMenuPresenter presenter(view);
    const MenuRef menu = menuOf(fixed({QStringLiteral("Room A")}));
    presenter.apply(menu);
    view.edits.clear();
    EXPECT_FALSE(presenter.apply(menu));
    std::vector<MenuItemRef> items = menu->items();
    items[0] = MenuItem::initWithTitle(QStringLiteral("Room B"), MenuAction::DeviceConnect);
    menu->setItems(items);
    EXPECT_TRUE(presenter.apply(menu));
    EXPECT_EQ(view.edits.join(QStringLiteral(", ")), QStringLiteral("update 0"));
    EXPECT_EQ(presenter.itemAt(0), items[0]);
}

TEST(TrayMenuPresenter, TitleLessEntriesAndNullMenu) {
    RecordingView view;
    TrayMenuPresenter presenter(view);
    auto menu = std::make_shared<Menu>(QStringLiteral("Lumerix"));
    menu->addItem(MenuItem::initWithTitle(std::nullopt, MenuAction::DeviceConnect));
    menu->addItem(MenuItem::separatorItem());
    presenter.apply(menu);
    ASSERT_EQ(view.rows.size(), 2u);
    EXPECT_EQ(view.rows[0], (TrayEntry{false, QString()}));
    EXPECT_TRUE(view.rows[1].separator);
    EXPECT_EQ(presenter.itemAt(-1), nullptr);
    EXPECT_EQ(presenter.itemAt(2), nullptr);
    EXPECT_TRUE(presenter.apply(nullptr));
    EXPECT_TRUE(view.rows.empty());
    EXPECT_EQ(presenter.itemAt(0), nullptr);
}

}  // namespace
}  // namespace lumerix
