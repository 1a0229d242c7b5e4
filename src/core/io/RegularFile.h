#pragma once
// Files read or written on the user's behalf at paths someone else may have prepared: only regular
// files are read (a FIFO would block, a device never ends), a link is followed only where the
// caller allows it, reads stop at a size cap, and what is created is readable by its owner only
// (the reference table and traces hold login codes).
#include <QByteArray>
#include <QString>
#include <optional>

namespace lumerix {

class RegularFile {
public:
    // Anything at path, a dangling link or a FIFO included.
    static bool exists(const QString& path);

    // A descriptor open for reading on the regular file at path; -1 with *error set otherwise.
    // Without followLinks a link at path is refused. Opening never blocks.
    static int openForReading(const QString& path, bool followLinks, QString* error);
    // All of the regular file at path; none with *error set when it is not one, cannot be read or
    // holds more than maxBytes (of which at most maxBytes + 1 are read).
    static std::optional<QByteArray> readAll(const QString& path, qint64 maxBytes, bool followLinks,
                                             QString* error);

    // A descriptor open for appending to the regular file at path, created 0600 when missing; -1
    // with *error set for a link, anything but a regular file, or a file of another user.
    static int openForAppending(const QString& path, QString* error);

    // Replaces path with a new 0600 file holding bytes: written beside it, then renamed over it, so
    // the old file stays whole when anything fails and a link at path is replaced, not followed.
    static bool writeAtomically(const QString& path, const QByteArray& bytes, QString* error);
};

}  // namespace lumerix
