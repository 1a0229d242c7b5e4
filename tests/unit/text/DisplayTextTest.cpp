#include "text/DisplayText.h"

#include <gtest/gtest.h>

namespace lumerix {
namespace {

const QChar kR(DisplayText::kReplacement);

// What a widget menu (QMenu, the X11 tray) shows for a QAction text: "&&" is '&', '&' before a
// character marks it as the mnemonic.
QString widgetShows(const QString& text) {
    QString shown;
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (text[i] == u'&' && i + 1 < text.size()) ++i;
        shown += text[i];
    }
    return shown;
}

// The label Qt 6 exports over dbusmenu for a QAction text: its first '&', unless last, becomes '_'.
QString exportedLabel(const QString& text) {
    QString label = text;
    const qsizetype at = label.indexOf(u'&');
    if (at >= 0 && at < label.size() - 1) label[at] = u'_';
    return label;
}

// What a dbusmenu host shows for a label: "__" is '_', any other '_' is a mnemonic mark, not shown.
QString dbusMenuShows(const QString& label) {
    QString shown;
    for (qsizetype i = 0; i < label.size(); ++i) {
        if (label[i] != u'_') {
            shown += label[i];
        } else if (i + 1 < label.size() && label[i + 1] == u'_') {
            shown += u'_';
            ++i;
        }
    }
    return shown;
}

// What a markup reader shows for escaped text.
QString markupShows(QString text) {
    text.replace(QStringLiteral("&lt;"), QStringLiteral("<"));
    text.replace(QStringLiteral("&gt;"), QStringLiteral(">"));
    text.replace(QStringLiteral("&quot;"), QStringLiteral("\""));
    return text.replace(QStringLiteral("&amp;"), QStringLiteral("&"));
}

// Names as a hostile receiver would send them; each shown as exactly its inert form by every
// consumer, and that form holds no control of any kind.
TEST(DisplayText, EveryConsumerShowsTheNameAsText) {
    struct Case {
        const char* name;
        QString text;
        QString inert;
    };
    const Case cases[] = {
        {"plain", QStringLiteral("Boardroom"), QStringLiteral("Boardroom")},
        {"mnemonic marks of both kinds", QStringLiteral("R_&D_Lab"), QStringLiteral("R_&D_Lab")},
        {"several '&', one last", QStringLiteral("Tom & Jerry &"), QStringLiteral("Tom & Jerry &")},
        {"underscores at the ends", QStringLiteral("_x__"), QStringLiteral("_x__")},
        {"terminal title and clear screen", QStringLiteral("A\x1b]0;pwned\x07\x1b[2J"),
         QStringLiteral("A") + kR + QStringLiteral("]0;pwned") + kR + kR + QStringLiteral("[2J")},
        {"bidi override and isolate", QStringLiteral("abc\u202Egpj.exe\u2066x\u2069\u200F"),
         QStringLiteral("abc") + kR + QStringLiteral("gpj.exe") + kR + QStringLiteral("x") + kR + kR},
        {"line breaks, tab, DEL, C1", QStringLiteral("a\nb\tc\rd\x7f\u0085\u2028e"),
         QStringLiteral("a") + kR + QStringLiteral("b") + kR + QStringLiteral("c") + kR +
             QStringLiteral("d") + kR + kR + kR + QStringLiteral("e")},
        {"markup", QStringLiteral("<b>Big</b> & \"Co\""), QStringLiteral("<b>Big</b> & \"Co\"")},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(DisplayText::inert(c.text), c.inert);
        EXPECT_EQ(widgetShows(DisplayText::menuTitle(c.text)), c.inert);
        EXPECT_EQ(dbusMenuShows(exportedLabel(DisplayText::dbusMenuTitle(c.text))), c.inert);
        const QString markup = DisplayText::escapedMarkup(c.inert);
        EXPECT_FALSE(markup.contains(u'<') || markup.contains(u'>') || markup.contains(u'"'));
        EXPECT_EQ(markupShows(markup), c.inert);
    }
    // The form Qt is given for the example from the field, spelled out.
    EXPECT_EQ(DisplayText::dbusMenuTitle(QStringLiteral("R_&D_Lab")), QStringLiteral("R__&&D__Lab"));
}

TEST(DisplayText, LinesKeepTheirBreaksAndTabsOnly) {
    EXPECT_EQ(DisplayText::inertLines(QStringLiteral("a\tb\nc\x1b[31m\r\u202Ed")),
              QStringLiteral("a\tb\nc") + kR + QStringLiteral("[31m") + kR + kR + QStringLiteral("d"));
}

}  // namespace
}  // namespace lumerix
