#include "log/Log.h"

#include <cstdarg>
#include <cstdio>
#include <vector>

#include "text/DisplayText.h"

namespace lumerix {
namespace {
std::mutex& sinkMutex() {
    static std::mutex m;
    return m;
}
std::shared_ptr<LogSink>& sinkSlot() {
    static std::shared_ptr<LogSink> s = std::make_shared<StderrLogSink>();
    return s;
}
QString vformat(const char* fmt, va_list ap) {
    va_list copy;
    va_copy(copy, ap);
    char small[512];
    int n = std::vsnprintf(small, sizeof small, fmt, copy);
    va_end(copy);
    if (n < 0) return QString();
    if (static_cast<size_t>(n) < sizeof small) return QString::fromUtf8(small, n);
    std::vector<char> big(static_cast<size_t>(n) + 1);
    std::vsnprintf(big.data(), big.size(), fmt, ap);
    return QString::fromUtf8(big.data(), n);
}
}  // namespace

namespace Log {
void setSink(std::shared_ptr<LogSink> sink) {
    std::lock_guard lock(sinkMutex());
    sinkSlot() = sink ? std::move(sink) : std::make_shared<StderrLogSink>();
}
std::shared_ptr<LogSink> sink() {
    std::lock_guard lock(sinkMutex());
    return sinkSlot();
}
void write(const QString& line) { sink()->write(line); }
QString format(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    QString s = vformat(fmt, ap);
    va_end(ap);
    return s;
}
void logf(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    QString s = vformat(fmt, ap);
    va_end(ap);
    write(s);
}
}  // namespace Log

void StderrLogSink::write(const QString& line) {
    // Lines quote names from the air: nothing in them may act on the terminal.
    QByteArray bytes = DisplayText::inertLines(line).toUtf8();
    if (!bytes.endsWith('\n')) bytes.append('\n');
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stderr);
}

class ScopedLogCapture::Collector final : public LogSink {
public:
    void write(const QString& line) override {
        std::lock_guard lock(mutex);
        lines.append(line);
    }
    mutable std::mutex mutex;
    QStringList lines;
};

ScopedLogCapture::ScopedLogCapture() : collector_(std::make_shared<Collector>()), previous_(Log::sink()) {
    Log::setSink(collector_);
}
ScopedLogCapture::~ScopedLogCapture() { Log::setSink(previous_); }
QStringList ScopedLogCapture::lines() const {
    std::lock_guard lock(collector_->mutex);
    return collector_->lines;
}
bool ScopedLogCapture::contains(const QString& text) const { return count(text) > 0; }
int ScopedLogCapture::count(const QString& text) const {
    std::lock_guard lock(collector_->mutex);
    return static_cast<int>(collector_->lines.count(text));
}
void ScopedLogCapture::clear() {
    std::lock_guard lock(collector_->mutex);
    collector_->lines.clear();
}

}  // namespace lumerix
