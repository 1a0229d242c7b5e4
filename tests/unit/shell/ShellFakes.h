#pragma once
// In-process desktop for AppDelegate tests: every port records what the shell asked of it.
#include <QTemporaryDir>
#include <memory>
#include <set>
#include <vector>

#include "ble/StaticPeripheral.h"
#include "dispatch/ManualQueue.h"
#include "receiver/QVLumerixItem.h"
#include "shell/AppDelegate.h"
#include "shell/ShellPorts.h"

namespace lumerix::shelltest {

class FakeStatusItem final : public StatusItem {
public:
    void setTarget(MenuActionTarget* t) override { target = t; }
    void setImage(const StatusImageRef& i) override { image = i; }
    void setMenu(const MenuRef& m) override {
        menu = m;
        ++menuAttachCount;
    }
    bool isMenuOpen() const override { return menuOpen; }
    void setToolTip(const QString& text) override { toolTips.push_back(text); }
    void setNeedsAttention(bool a) override { attention = a; }

    MenuActionTarget* target = nullptr;
    std::vector<QString> toolTips;
    bool attention = false;
    StatusImageRef image;
    MenuRef menu;
    int menuAttachCount = 0;
    bool menuOpen = false;
};

class FakeStatusBar final : public StatusBar {
public:
    StatusItemRef statusItemWithLength(double) override { return item; }
    StatusImageRef imageNamed(const QString& name) override { return std::make_shared<StatusImage>(name); }
    bool isTrayAvailable() const override { return trayAvailable; }

    bool trayAvailable = true;
    std::shared_ptr<FakeStatusItem> item = std::make_shared<FakeStatusItem>();
};

class FakeApplication final : public ShellApplication {
public:
    void hide() override { ++hideCount; }
    void terminate() override { ++terminateCount; }
    int runModal(const Alert& alert) override {
        alerts.push_back(alert);
        return 0;
    }
    void orderFrontStandardAboutPanel() override {}

    int hideCount = 0;
    int terminateCount = 0;
    std::vector<Alert> alerts;
};

class FakeNotifier final : public Notifier {
public:
    void notify(const Notification& n) override { shown.push_back(n); }
    std::vector<Notification> shown;
};

class FakeWorkspace final : public Workspace {
public:
    void addObserver(WorkspaceObserver* o) override { observers.insert(o); }
    void removeObserver(WorkspaceObserver* o) override { observers.erase(o); }
    std::set<WorkspaceObserver*> observers;
};

// What one scanning handler was asked, kept after the shell drops the handler.
struct HandlerLog {
    std::vector<bool> calls;  // scanForLumerixService arguments
    LumerixHandler_Delegate* delegate = nullptr;
    std::vector<QVLumerixItemRef> forgotten;  // forgetItem arguments
    bool alive = true;
};

// failuresLeft makes scanForLumerixService(true) fail that many times; negative: always.
class FakeScanning final : public LumerixScanning {
public:
    FakeScanning(std::shared_ptr<HandlerLog> log, int failures, std::optional<int> state = std::nullopt)
        : log_(std::move(log)), failuresLeft_(failures), state_(state) {}
    ~FakeScanning() override { log_->alive = false; }
    bool scanForLumerixService(bool start) override {
        log_->calls.push_back(start);
        if (start && failuresLeft_ != 0) {
            if (failuresLeft_ > 0) --failuresLeft_;
            return false;
        }
        return true;
    }
    void setDelegate(LumerixHandler_Delegate* d) override { log_->delegate = d; }
    LumerixHandler_Delegate* delegate() const override { return log_->delegate; }
    std::optional<int> centralState() const override { return state_; }
    void forgetItem(const QVLumerixItemRef& item) override { log_->forgotten.push_back(item); }

private:
    std::shared_ptr<HandlerLog> log_;
    int failuresLeft_;
    std::optional<int> state_;
};

struct ReceiverSetup {
    QString uuid;  // empty: an item without a peripheral
    double rssi;
    std::optional<QString> name;
    std::optional<QString> ip = QStringLiteral("10.0.0.1");
    std::optional<QString> login = QStringLiteral("1234");
};

// A started shell on virtual time with every port faked.
class ShellRig {
public:
    ShellRig();
    ~ShellRig();

    // Builds the AppDelegate from env (change env first) and awakens it.
    AppDelegate& awake();
    // awake() and applicationDidFinishLaunching().
    AppDelegate& launch();

    QVLumerixItemRef makeItem(const ReceiverSetup& setup, double lastHeardMs = -1);
    QVLumerixItemRef discover(const ReceiverSetup& setup);
    // Menu rows as text: titles, "---" for separators, "<untitled>" for a title-less entry.
    QStringList menuRows() const;
    void writeSavedTable(const QByteArray& content);
    QString savedTablePath() const;

    std::shared_ptr<VirtualTime> time = std::make_shared<VirtualTime>();
    ManualQueue mainQueue{*time, "main"};
    QTemporaryDir support;
    QTemporaryDir resources;
    std::shared_ptr<FakeStatusBar> statusBar = std::make_shared<FakeStatusBar>();
    std::shared_ptr<FakeApplication> application = std::make_shared<FakeApplication>();
    std::shared_ptr<FakeWorkspace> workspace = std::make_shared<FakeWorkspace>();
    std::shared_ptr<FakeNotifier> notifier = std::make_shared<FakeNotifier>();
    std::vector<std::shared_ptr<HandlerLog>> handlers;  // one per handler made, in order
    int scanFailures = 0;
    bool bluetoothOn = true;
    std::optional<int> centralState;  // what a new handler's central reports
    uint32_t senderProcesses = 0;
    bool senderInstalled = true;
    int launcherStatus = 0;
    std::vector<QByteArray> commands;
    std::vector<uint32_t> lookupUids;  // the uid of each process lookup
    std::vector<QByteArray> frames;
    std::vector<DeliveryDone> deliveries;  // one per frame, to report its outcome
    int pauses = 0;
    ShellEnvironment env;
    std::unique_ptr<AppDelegate> shell;
};

}  // namespace lumerix::shelltest
