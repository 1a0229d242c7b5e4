#pragma once
// The application object for the shell: hiding (nothing to hide: the program has no window),
// deferred termination, modal alerts and the About box, all with Qt Widgets.
//
// terminate() only asks: the termination (the willTerminate hook, then the event loop's end)
// runs later from the event loop, never inside a modal alert; a request that arrives while an
// alert is open closes the alert first.
#include <QPointer>
#include <functional>

#include "shell/ShellPorts.h"

class QMessageBox;

namespace lumerix {

class QtShellApplication final : public ShellApplication {
public:
    QtShellApplication();
    ~QtShellApplication() override;

    // Runs once, right before the event loop is asked to quit (applicationWillTerminate).
    void setWillTerminate(std::function<void()> hook) { willTerminate_ = std::move(hook); }

    void hide() override {}
    void terminate() override;
    int runModal(const Alert& alert) override;
    void orderFrontStandardAboutPanel() override;

    bool isTerminating() const { return terminateRequested_; }

private:
    void scheduleTermination();
    void finishTermination();

    std::function<void()> willTerminate_;
    bool terminateRequested_ = false;
    bool terminated_ = false;
    int modalDepth_ = 0;
    QPointer<QMessageBox> modal_;
    QPointer<QMessageBox> about_;
};

}  // namespace lumerix
