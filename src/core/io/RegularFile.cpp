#include "io/RegularFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace lumerix {

namespace {

constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;

QString reason(int error) { return QString::fromLocal8Bit(std::strerror(error)); }

QByteArray native(const QString& path) { return QFile::encodeName(path); }

// A descriptor that closes itself unless released.
class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

// The regular file behind fd, or a reason it is not one.
bool isRegular(int fd, QString* error, struct stat* st) {
    if (::fstat(fd, st) != 0) {
        *error = reason(errno);
        return false;
    }
    if (!S_ISREG(st->st_mode)) {
        *error = QStringLiteral("not a regular file");
        return false;
    }
    return true;
}

// Turns the non-blocking mode used for opening off again, so reads and writes behave as usual.
void makeBlocking(int fd) {
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0) ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
}

bool writeAll(int fd, const QByteArray& bytes) {
    const char* p = bytes.constData();
    qsizetype left = bytes.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, p, static_cast<size_t>(left));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        left -= n;
    }
    return true;
}

}  // namespace

bool RegularFile::exists(const QString& path) {
    struct stat st {};
    return !path.isEmpty() && ::lstat(native(path).constData(), &st) == 0;
}

int RegularFile::openForReading(const QString& path, bool followLinks, QString* error) {
    if (path.isEmpty()) {
        *error = QStringLiteral("no path");
        return -1;
    }
    // Non-blocking: opening a FIFO would otherwise wait for a writer.
    const int flags = O_RDONLY | O_NONBLOCK | O_CLOEXEC | (followLinks ? 0 : O_NOFOLLOW);
    Descriptor fd(::open(native(path).constData(), flags));
    if (fd.get() < 0) {
        const int e = errno;
        *error =
            e == ELOOP && !followLinks ? QStringLiteral("a symbolic link, not a regular file") : reason(e);
        return -1;
    }
    struct stat st {};
    if (!isRegular(fd.get(), error, &st)) return -1;
    makeBlocking(fd.get());
    return fd.release();
}

std::optional<QByteArray> RegularFile::readAll(const QString& path, qint64 maxBytes, bool followLinks,
                                               QString* error) {
    Descriptor fd(openForReading(path, followLinks, error));
    if (fd.get() < 0) return std::nullopt;
    QByteArray data;
    std::vector<char> chunk(size_t{64} * 1024);
    // One byte past the cap tells a file at the cap from a larger one.
    while (data.size() <= maxBytes) {
        const qint64 want = std::min<qint64>(static_cast<qint64>(chunk.size()), maxBytes + 1 - data.size());
        const ssize_t n = ::read(fd.get(), chunk.data(), static_cast<size_t>(want));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            *error = reason(errno);
            return std::nullopt;
        }
        if (n == 0) return data;
        data.append(chunk.data(), n);
    }
    *error = QStringLiteral("larger than %1 bytes").arg(maxBytes);
    return std::nullopt;
}

int RegularFile::openForAppending(const QString& path, QString* error) {
    if (path.isEmpty()) {
        *error = QStringLiteral("no path");
        return -1;
    }
    const int flags = O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;
    Descriptor fd(::open(native(path).constData(), flags, kOwnerOnly));
    if (fd.get() < 0) {
        const int e = errno;
        *error = e == ELOOP ? QStringLiteral("a symbolic link, not a regular file") : reason(e);
        return -1;
    }
    struct stat st {};
    if (!isRegular(fd.get(), error, &st)) return -1;
    // Someone else's file, e.g. one left in a shared folder, would let its owner read along.
    if (st.st_uid != ::geteuid()) {
        *error = QStringLiteral("owned by another user");
        return -1;
    }
    makeBlocking(fd.get());
    return fd.release();
}

bool RegularFile::writeAtomically(const QString& path, const QByteArray& bytes, QString* error) {
    if (path.isEmpty()) {
        *error = QStringLiteral("no path");
        return false;
    }
    QByteArray temp = native(path) + ".XXXXXX";
    // mkstemp creates a new file (never through a link) readable by its owner only.
    Descriptor fd(::mkstemp(temp.data()));
    if (fd.get() < 0) {
        *error = reason(errno);
        return false;
    }
    bool ok = ::fchmod(fd.get(), kOwnerOnly) == 0 && writeAll(fd.get(), bytes) && ::fsync(fd.get()) == 0;
    int e = errno;
    if (::close(fd.release()) != 0 && ok) {
        ok = false;
        e = errno;
    }
    // rename() replaces whatever is at path, a link included, and never writes through it.
    if (ok && ::rename(temp.constData(), native(path).constData()) != 0) {
        ok = false;
        e = errno;
    }
    if (!ok) {
        ::unlink(temp.constData());
        *error = reason(e);
    }
    return ok;
}

}  // namespace lumerix
