#include "text/DisplayText.h"

namespace lumerix {

namespace {

bool isHazard(char16_t c) {
    return c < 0x20 || (c >= 0x7F && c <= 0x9F) ||       // C0, DEL, C1
           c == 0x061C || c == 0x200E || c == 0x200F ||  // bidi marks
           c == 0x2028 || c == 0x2029 ||                 // line and paragraph separators
           (c >= 0x202A && c <= 0x202E) ||               // embeddings and overrides
           (c >= 0x2066 && c <= 0x2069);                 // isolates
}

QString replaced(const QString& text, bool keepLines) {
    QString out = text;
    for (QChar& c : out) {
        const char16_t u = c.unicode();
        if (keepLines && (u == u'\n' || u == u'\t')) continue;
        if (isHazard(u)) c = QChar(DisplayText::kReplacement);
    }
    return out;
}

}  // namespace

QString DisplayText::inert(const QString& text) { return replaced(text, false); }

QString DisplayText::inertLines(const QString& text) { return replaced(text, true); }

QString DisplayText::menuTitle(const QString& text) {
    QString out = inert(text);
    out.replace(QLatin1Char('&'), QStringLiteral("&&"));
    return out;
}

QString DisplayText::dbusMenuTitle(const QString& text) {
    QString out = inert(text);
    out.replace(QLatin1Char('_'), QStringLiteral("__"));
    const qsizetype firstAmpersand = out.indexOf(QLatin1Char('&'));
    if (firstAmpersand >= 0) out.insert(firstAmpersand, QLatin1Char('&'));
    return out;
}

QString DisplayText::escapedMarkup(const QString& text) { return text.toHtmlEscaped(); }

}  // namespace lumerix
