// The intake thread's own loop, without a system bus to talk to: the state still reaches the
// delegate, a command posted just before teardown still runs, and the destructor ends the loop.
// Under the tsan preset this also covers the hand-over between the caller's thread, the intake
// thread and the delegate queue.
#include <gtest/gtest.h>

#include <QTemporaryDir>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <optional>
#include <string>

#include "dispatch/ThreadQueue.h"
#include "log/Log.h"
#include "platform/bluez/BluezCentral.h"

namespace lumerix {
namespace {

class StateDelegate final : public BleCentralDelegate {
public:
    void centralManagerDidUpdateState(int state) override {
        if (!reported_.exchange(true)) first_.set_value(state);
    }
    std::future<int> firstState() { return first_.get_future(); }

private:
    std::atomic<bool> reported_{false};
    std::promise<int> first_;
};

class ScopedEnv {
public:
    ScopedEnv(const char* name, const QByteArray& value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        setenv(name, value.constData(), 1);
    }
    ~ScopedEnv() {
        if (old_)
            setenv(name_, old_->c_str(), 1);
        else
            unsetenv(name_);
    }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    const char* name_;
    std::optional<std::string> old_;
};

TEST(BluezCentral, WithoutASystemBusTheStateArrivesAndACommandPostedBeforeTeardownStillRuns) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    ScopedEnv bus("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + dir.filePath(QStringLiteral("no-bus")).toUtf8());
    ScopedLogCapture log;
    StateDelegate delegate;
    auto state = delegate.firstState();
    {
        ThreadQueue queue("delegate");
        BluezCentral central(&delegate, &queue);
        ASSERT_EQ(state.wait_for(std::chrono::seconds(30)), std::future_status::ready);
        EXPECT_EQ(state.get(), 0);  // no bluetoothd to be seen
        central.scanForPeripherals(true);
    }
    EXPECT_EQ(log.lines().filter(QStringLiteral("scan requested while the state is 0; ignored")).size(), 1)
        << log.lines().join(QLatin1Char('\n')).toStdString();
}

}  // namespace
}  // namespace lumerix
