#include "platform/bluez/BluezCentral.h"

#include <QDBusMetaType>
#include <QDBusVariant>
#include <atomic>
#include <future>

#include "dispatch/QtQueues.h"
#include "log/Log.h"
#include "platform/bluez/BluezEngine.h"
#include "platform/bluez/BluezLink.h"
#include "platform/bluez/BluezPeripheral.h"

namespace lumerix {
namespace {

QString nextConnectionName() {
    static std::atomic<int> counter{0};
    return QStringLiteral("lumerix-bluez-%1").arg(++counter);
}

QString pathOf(const BlePeripheralRef& peripheral) {
    auto* p = dynamic_cast<BluezPeripheral*>(peripheral.get());
    return p ? p->path() : QString();
}

}  // namespace

BluezCentral::BluezCentral(BleCentralDelegate* delegate, DispatchQueue* queue)
    : link_(std::make_shared<BluezLink>(queue)), queue_(queue) {
    static const bool registered = [] {
        qDBusRegisterMetaType<QMap<quint16, QDBusVariant>>();
        return true;
    }();
    (void)registered;

    if (!dynamic_cast<QtEventQueue*>(queue)) {
        // D-Bus replies and signals need a Qt event loop on the queue's thread.
        Log::logf("BluezCentral: the queue \"%s\" has no Qt event loop; Bluetooth stays unavailable",
                  queue ? queue->label().c_str() : "(none)");
        if (queue && delegate)
            queue->async([delegate, link = link_] {
                if (!link->closing.load()) delegate->centralManagerDidUpdateState(BleStateUnknown);
            });
        return;
    }
    hasEngine_ = true;
    link_->run([delegate, link = link_, name = nextConnectionName()] {
        if (link->closing.load()) return;
        link->engine = std::make_shared<BluezEngine>(delegate, link, name);
        link->engine->start();
    });
}

BluezCentral::~BluezCentral() {
    link_->closing.store(true);
    if (hasEngine_ && queue_->isCurrent()) {
        link_->engine.reset();  // misuse, but tear down rather than wait on ourselves
    } else if (hasEngine_) {
        // Tear the engine down on its own thread and wait for it.
        std::promise<void> done;
        link_->run([link = link_, &done] {
            link->engine.reset();
            done.set_value();
        });
        done.get_future().wait();
    }
    link_->detach();
}

BleCentralFactory BluezCentral::factory() {
    return [](BleCentralDelegate* delegate, DispatchQueue* queue) -> std::unique_ptr<BleCentral> {
        return std::make_unique<BluezCentral>(delegate, queue);
    };
}

int BluezCentral::state() const { return link_->state.load(); }

void BluezCentral::scanForPeripherals(bool allowDuplicates) {
    link_->post([allowDuplicates](BluezEngine& e) { e.startScan(allowDuplicates); });
}

void BluezCentral::stopScan() {
    link_->post([](BluezEngine& e) { e.stopScan(); });
}

void BluezCentral::connectPeripheral(const BlePeripheralRef& peripheral) {
    const QString path = pathOf(peripheral);
    if (path.isEmpty()) {
        Log::logf("BluezCentral: connect to a peripheral of another central; ignored");
        return;
    }
    link_->post([path](BluezEngine& e) { e.connectDevice(path); });
}

void BluezCentral::cancelPeripheralConnection(const BlePeripheralRef& peripheral) {
    const QString path = pathOf(peripheral);
    if (path.isEmpty()) return;
    link_->post([path](BluezEngine& e) { e.disconnectDevice(path); });
}

}  // namespace lumerix
