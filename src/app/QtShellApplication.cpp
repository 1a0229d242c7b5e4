#include "app/QtShellApplication.h"

#include <QApplication>
#include <QMessageBox>
#include <QPushButton>

namespace lumerix {

namespace {

QMessageBox::Icon iconFor(int style) {
    switch (style) {
        case Alert::Informational:
            return QMessageBox::Information;
        case Alert::Critical:
            return QMessageBox::Critical;
        default:
            return QMessageBox::Warning;
    }
}

}  // namespace

QtShellApplication::QtShellApplication() = default;

QtShellApplication::~QtShellApplication() {
    if (about_) delete about_.data();
}

void QtShellApplication::terminate() {
    if (terminateRequested_) return;
    terminateRequested_ = true;
    if (modal_) modal_->done(-1);
    scheduleTermination();
}

void QtShellApplication::scheduleTermination() {
    QMetaObject::invokeMethod(
        qApp, [this] { finishTermination(); }, Qt::QueuedConnection);
}

void QtShellApplication::finishTermination() {
    // Inside an alert's own loop the caller of runModal is still on the stack; wait for it.
    if (terminated_ || modalDepth_ > 0) return;
    terminated_ = true;
    if (about_) about_->close();
    if (willTerminate_) willTerminate_();
    QCoreApplication::quit();
}

int QtShellApplication::runModal(const Alert& alert) {
    QMessageBox box;
    box.setIcon(iconFor(alert.alertStyle));
    box.setWindowTitle(QCoreApplication::applicationName());
    box.setText(alert.messageText);
    box.setInformativeText(alert.informativeText);
    QList<QAbstractButton*> buttons;
    const QStringList titles = alert.buttons.isEmpty()
                                   ? QStringList{QCoreApplication::translate("AppDelegate", "OK")}
                                   : alert.buttons;
    for (const QString& title : titles) buttons.append(box.addButton(title, QMessageBox::AcceptRole));
    box.setDefaultButton(static_cast<QPushButton*>(buttons.first()));
    if (terminateRequested_) return -1;

    ++modalDepth_;
    modal_ = &box;
    box.exec();
    modal_ = nullptr;
    --modalDepth_;
    if (terminateRequested_ && modalDepth_ == 0) scheduleTermination();
    return static_cast<int>(buttons.indexOf(box.clickedButton()));
}

void QtShellApplication::orderFrontStandardAboutPanel() {
    if (!about_) {
        const QString name = QCoreApplication::applicationName();
        about_ =
            new QMessageBox(QMessageBox::NoIcon, QCoreApplication::translate("About", "About %1").arg(name),
                            QStringLiteral("<b>%1</b><br>").arg(name.toHtmlEscaped()) +
                                QCoreApplication::translate("About", "Version %1")
                                    .arg(QCoreApplication::applicationVersion())
                                    .toHtmlEscaped() +
                                QStringLiteral("<br><br>") +
                                QCoreApplication::translate("About",
                                                            "Lists the presentation receivers nearby and "
                                                            "connects the sender to the one you choose.")
                                    .toHtmlEscaped(),
                            QMessageBox::Ok);
        about_->setAttribute(Qt::WA_DeleteOnClose);
        about_->setTextFormat(Qt::RichText);
        about_->setModal(false);
    }
    about_->show();
    about_->raise();
    about_->activateWindow();
}

}  // namespace lumerix
