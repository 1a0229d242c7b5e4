#include "app/Translations.h"

#include <QCoreApplication>
#include <QLibraryInfo>
#include <QLocale>
#include <QTranslator>

namespace lumerix {

void installTranslations() {
    auto* app = QCoreApplication::instance();
    if (!app) return;
    const QLocale locale;
    // Parented to the application: they live as long as it does.
    auto* own = new QTranslator(app);
    if (own->load(locale, QStringLiteral("lumerix"), QStringLiteral("_"), QStringLiteral(":/i18n")))
        QCoreApplication::installTranslator(own);
    else
        delete own;
    auto* qt = new QTranslator(app);
    if (qt->load(locale, QStringLiteral("qtbase"), QStringLiteral("_"),
                 QLibraryInfo::path(QLibraryInfo::TranslationsPath)))
        QCoreApplication::installTranslator(qt);
    else
        delete qt;
}

}  // namespace lumerix
