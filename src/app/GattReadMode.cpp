#include "app/GattReadMode.h"

#include <QCoreApplication>
#include <cstdio>

#include "app/HeadlessSession.h"
#include "app/Translations.h"
#include "log/Log.h"
#include "platform/linux/SyslogSink.h"
#include "receiver/BoundedText.h"

namespace lumerix {
namespace {

constexpr int kExitTimeout = 3;
constexpr double kDefaultTimeoutSeconds = 20.0;

class GattReadSession final : public HeadlessSession {
public:
    explicit GattReadSession(const CommandLine& o)
        : HeadlessSession(o.demo),
          options_(o),
          timeoutSeconds_(o.timeoutSeconds.value_or(kDefaultTimeoutSeconds)) {}

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
                     options_.identifier.toUtf8().constData(), timeoutSeconds_,
                     !requested_   ? "the receiver was not seen"
                     : !connected_ ? "no connection"
                                   : "no complete record");
        return kExitTimeout;
    }

    const CommandLine options_;
    const double timeoutSeconds_;
    bool requested_ = false;
    bool connected_ = false;
};

}  // namespace

int runGattReadMode(int argc, char** argv, const CommandLine& options) {
    QCoreApplication app(argc, argv);
    installTranslations();
    installSystemLogSink();
    GattReadSession session(options);
    return session.exec(options.timeoutSeconds.value_or(kDefaultTimeoutSeconds) * 1000.0);
}

}  // namespace lumerix
