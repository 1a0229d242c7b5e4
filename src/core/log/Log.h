#pragma once
// Diagnostic log lines. Everything the program logs goes through one replaceable sink:
// syslog in production, the terminal by default, a capture in tests.
#include <QString>
#include <QStringList>
#include <memory>
#include <mutex>

namespace lumerix {

class LogSink {
public:
    virtual ~LogSink() = default;
    // Receives the line exactly as formatted, trailing line end included when the text has one.
    virtual void write(const QString& line) = 0;
};

namespace Log {
void setSink(std::shared_ptr<LogSink> sink);
std::shared_ptr<LogSink> sink();
void write(const QString& line);
// printf-style formatting; %s takes UTF-8 C strings.
QString format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void logf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
}  // namespace Log

// Writes to stderr, adding a line end when the text has none.
class StderrLogSink final : public LogSink {
public:
    void write(const QString& line) override;
};

// Collects lines while alive and restores the previous sink afterwards (tests).
class ScopedLogCapture final {
public:
    ScopedLogCapture();
    ~ScopedLogCapture();
    ScopedLogCapture(const ScopedLogCapture&) = delete;
    ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;
    QStringList lines() const;
    bool contains(const QString& text) const;  // an exact line
    int count(const QString& text) const;
    void clear();

private:
    class Collector;
    std::shared_ptr<Collector> collector_;
    std::shared_ptr<LogSink> previous_;
};

}  // namespace lumerix
