#include "shell/ReferenceTableStore.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <cstdio>

#include "io/RegularFile.h"
#include "log/Log.h"
#include "shell/ReferenceTable.h"

namespace lumerix {

QString ReferenceTableStore::folder() const {
    if (applicationSupportPath_.isEmpty()) return QString();
    return applicationSupportPath_ + QLatin1String("/Tavik/Lumerix");
}

QString ReferenceTableStore::path() const {
    const QString dir = folder();
    return dir.isEmpty() ? QString() : dir + QLatin1Char('/') + QLatin1String(kReferenceTableFileName);
}

void ReferenceTableStore::load() {
    if (!table_) table_ = QVariantList();
    const QString defaultPath =
        resourcePath_ + QLatin1Char('/') + QLatin1String(kDefaultReferenceTableFileName);
    std::optional<QVariantList> defaults;
    if (!resourcePath_.isEmpty() && QFileInfo::exists(defaultPath)) {
        // The shipped or site-wide list may be a link, e.g. to the administrator's own list.
        defaults = ReferenceTable::arrayWithContentsOfFile(defaultPath, true);
        if (!defaults) {
            Log::logf("LoadReferenceTable: %s is not a readable list; no default receivers",
                      qUtf8Printable(defaultPath));
        }
    }

    const QString dir = folder();
    if (dir.isEmpty() || !QFileInfo::exists(dir)) {
        if (dir.isEmpty() || !QDir().mkpath(dir)) {
            Log::logf("Creat Folder Fail : %s", qUtf8Printable(resourcePath_));
        }
    }

    const QString saved = path();
    unreadable_ = false;
    // Anything at the path counts, a link or a FIFO too: it is not read, and kept aside at exit.
    if (!saved.isEmpty() && RegularFile::exists(saved)) {
        const auto entries = ReferenceTable::arrayWithContentsOfFile(saved);
        if (!entries) {
            unreadable_ = true;
            Log::logf("LoadReferenceTable: %s is not a readable list; starting with an empty table",
                      qUtf8Printable(saved));
        } else {
            table_->append(*entries);
        }
    } else if (defaults) {
        table_->append(*defaults);
    }
}

void ReferenceTableStore::keepUnreadable(const QString& path) {
    if (!RegularFile::exists(path)) {
        unreadable_ = false;
        return;
    }
    QString aside = path + QLatin1String(kUnreadableSuffix);
    for (int n = 1; RegularFile::exists(aside); ++n) {
        aside = path + QLatin1String(kUnreadableSuffix) + QLatin1Char('.') + QString::number(n);
    }
    // Moved, not copied: a link, FIFO or device is never read, and a file is kept as it was.
    if (std::rename(QFile::encodeName(path).constData(), QFile::encodeName(aside).constData()) == 0) {
        Log::logf("SaveReferenceTable: the unreadable %s is kept as %s", qUtf8Printable(path),
                  qUtf8Printable(aside));
        unreadable_ = false;
    } else {
        Log::logf("SaveReferenceTable: could not keep the unreadable %s aside", qUtf8Printable(path));
    }
}

void ReferenceTableStore::save() {
    const QString saved = path();
    if (!table_) return;
    if (unreadable_ && !saved.isEmpty()) {
        keepUnreadable(saved);
        // Never overwrite what could not be read unless a copy of it exists.
        if (unreadable_) {
            Log::write(QStringLiteral("SaveReferenceTable writeToFile Fail"));
            return;
        }
    }
    if (!ReferenceTable::writeToFile(*table_, saved)) {
        Log::write(QStringLiteral("SaveReferenceTable writeToFile Fail"));
    }
}

}  // namespace lumerix
