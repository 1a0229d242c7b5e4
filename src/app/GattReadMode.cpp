#include "app/GattReadMode.h"

#include <QCoreApplication>
#include <cstdio>
#include <cstring>
#include <optional>

#include "app/HeadlessSession.h"
#include "log/Log.h"
#include "platform/linux/SyslogSink.h"
#include "receiver/BoundedText.h"

namespace lumerix {
namespace {

constexpr int kExitTimeout = 3;
constexpr double kDefaultTimeoutSeconds = 20.0;

struct GattOptions {
    QString identifier;
    double timeoutSeconds = kDefaultTimeoutSeconds;
    bool demo = false;
};

std::optional<GattOptions> parseGattOptions(int argc, char** argv, QString* error) {
    GattOptions o;
    for (int i = 1; i < argc; ++i) {
        const char* a = argv[i];
        if (std::strcmp(a, "--gatt-read") == 0 && i + 1 < argc) {
            o.identifier = QString::fromUtf8(argv[++i]).trimmed();
        } else if (std::strcmp(a, "--timeout") == 0 && i + 1 < argc) {
            bool ok = false;
            o.timeoutSeconds = QString::fromUtf8(argv[++i]).toDouble(&ok);
            if (!ok || o.timeoutSeconds <= 0 || o.timeoutSeconds > 3600) {
                *error = QStringLiteral("the timeout must be a number of seconds, got \"%1\"")
                             .arg(QString::fromUtf8(argv[i]));
                return std::nullopt;
            }
        } else if (std::strcmp(a, "--demo") == 0) {
            o.demo = true;
        } else {
            *error = QStringLiteral("unexpected argument \"%1\"").arg(QString::fromUtf8(a));
            return std::nullopt;
        }
    }
    if (o.identifier.isEmpty()) {
        *error = QStringLiteral("an identifier is required");
        return std::nullopt;
    }
    return o;
}

class GattReadSession final : public HeadlessSession {
public:
    explicit GattReadSession(const GattOptions& o) : HeadlessSession(o.demo), options_(o) {}

private:
    bool matches(const QVLumerixItemRef& item) const {
        return item->peripheral() &&
               item->peripheral()->identifier().compare(options_.identifier, Qt::CaseInsensitive) == 0;
    }

    void itemSeen(const QVLumerixItemRef& item) override {
        if (requested_ || !matches(item)) return;
        requested_ = true;
        Log::logf("lumerix: connecting to %s for its connection information",
                  options_.identifier.toUtf8().constData());
        handler().connectItem(item);
    }

    void itemStatus(const QVLumerixItemRef& item, int status) override {
        if (!matches(item)) return;
        if (status == LumerixItemConnected) connected_ = true;
        // Status 2 after the connection: the GATT record has been decoded (the advertisement's own
        // status 2 comes before any connection).
        if (status != LumerixItemResolved || !connected_) return;
        const LumerixStruct r = item->lumerix();
        std::printf("WiFiSSID: %s\nWiFiKey: %s\nReceiverIP: %s\nReceiverName: %s\nReceiverLoginCode: %s\n",
                    boundedUtf8(r.WiFiSSID).toUtf8().constData(), boundedUtf8(r.WiFiKey).toUtf8().constData(),
                    boundedUtf8(r.ReceiverIP).toUtf8().constData(),
                    boundedUtf8(r.ReceiverName).toUtf8().constData(),
                    boundedUtf8(r.ReceiverLoginCode).toUtf8().constData());
        std::fflush(stdout);
        finish(0);
    }

    int deadlineReached() override {
        std::fprintf(stderr, "lumerix: no connection information from %s within %g s (%s)\n",
                     options_.identifier.toUtf8().constData(), options_.timeoutSeconds,
                     !requested_   ? "the receiver was not seen"
                     : !connected_ ? "no connection"
                                   : "no complete record");
        return kExitTimeout;
    }

    const GattOptions options_;
    bool requested_ = false;
    bool connected_ = false;
};

}  // namespace

int runGattReadMode(int argc, char** argv) {
    QString error;
    auto options = parseGattOptions(argc, argv, &error);
    if (!options) {
        std::fprintf(stderr,
                     "lumerix: %s\nusage: lumerix --gatt-read IDENTIFIER [--timeout SECONDS] [--demo]\n",
                     error.toUtf8().constData());
        return HeadlessSession::kExitUsage;
    }
    QCoreApplication app(argc, argv);
    installSystemLogSink();
    GattReadSession session(*options);
    return session.exec(options->timeoutSeconds * 1000.0);
}

}  // namespace lumerix
