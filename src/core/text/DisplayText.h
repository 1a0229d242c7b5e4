#pragma once
// Text that strangers chose (receiver names from the air, titles from a table file, identifiers
// from a trace) made inert for the place it is shown: it reads as the characters it holds, with
// no terminal escape sequence, no reordering of what follows it, no mnemonic and no markup.
//
// inert() is the base of every form: C0 and C1 control characters, DEL, the line and paragraph
// separators and the bidirectional controls (embeddings, overrides, isolates and marks) each
// become U+FFFD, so the text stays one line, its length is kept and nothing it holds acts on the
// terminal or on the text around it.
#include <QString>

namespace lumerix {

class DisplayText {
public:
    static constexpr char16_t kReplacement = 0xFFFD;

    // One line of text.
    static QString inert(const QString& text);
    // Several lines: as inert(), but line feeds and tabs are kept (log lines, notification bodies).
    static QString inertLines(const QString& text);
    // A widget menu entry (QAction text, the X11 tray and macOS): '&' marks a mnemonic there, so
    // each one is doubled.
    static QString menuTitle(const QString& text);
    // A menu entry that Qt exports as a dbusmenu label: dbusmenu reads "__" as '_' and a single '_'
    // as a mnemonic mark, so underscores are doubled; Qt turns the first '&' of the text into that
    // mark, so the first '&' is doubled and becomes "_&", the '&' itself being the access key.
    static QString dbusMenuTitle(const QString& text);
    // For a consumer that reads markup: '&', '<', '>' and '"' as entities. Not made inert here, so
    // that it can be applied to text already joined from inert parts.
    static QString escapedMarkup(const QString& text);
};

}  // namespace lumerix
