#pragma once
// The user's saved receivers: read at launch from the Application Support folder (or, when
// nothing is saved yet, from the default list shipped beside the program) and written back at
// exit. A saved file that could not be read is never overwritten: it is moved aside first.
#include <QString>
#include <QVariantList>
#include <optional>

namespace lumerix {

class ReferenceTableStore {
public:
    static constexpr const char* kReferenceTableFileName = "ReferenceTable.plist";
    static constexpr const char* kDefaultReferenceTableFileName = "DefaultReferenceTable.plist";
    static constexpr const char* kUnreadableSuffix = ".unreadable";

    // resourcePath: folder of the default list (empty: none). applicationSupportPath: empty means
    // the table is neither read nor written.
    ReferenceTableStore(QString resourcePath, QString applicationSupportPath)
        : resourcePath_(std::move(resourcePath)),
          applicationSupportPath_(std::move(applicationSupportPath)) {}

    // <Application Support>/Tavik/Lumerix; empty when there is no Application Support folder.
    QString folder() const;
    // Appends the saved (or default) entries to the table, starting one if there is none.
    void load();
    // Writes the table, if there is one, keeping an unreadable saved file aside first.
    void save();

    const std::optional<QVariantList>& table() const { return table_; }
    // An empty table (launch) or none (after exit).
    void startEmpty() { table_ = QVariantList(); }
    void drop() { table_.reset(); }

private:
    QString path() const;
    void keepUnreadable(const QString& path);

    QString resourcePath_;
    QString applicationSupportPath_;
    std::optional<QVariantList> table_;
    // The saved table could not be read at launch; it is kept aside before being overwritten.
    bool unreadable_ = false;
};

}  // namespace lumerix
