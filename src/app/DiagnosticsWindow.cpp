#include "app/DiagnosticsWindow.h"

#include <QCoreApplication>
#include <QDialog>
#include <QDialogButtonBox>
#include <QFontDatabase>
#include <QPlainTextEdit>
#include <QPointer>
#include <QProcess>
#include <QTimer>
#include <QVBoxLayout>

#include "log/Log.h"

namespace lumerix {

namespace {

constexpr int kDoctorTimeoutMs = 30000;

QPointer<QDialog>& openWindow() {
    static QPointer<QDialog> window;
    return window;
}

QPlainTextEdit* reportView() {
    QPointer<QDialog>& window = openWindow();
    if (!window) {
        window = new QDialog;
        window->setAttribute(Qt::WA_DeleteOnClose);
        window->setWindowTitle(QCoreApplication::translate("DiagnosticsWindow", "Lumerix diagnostics"));
        window->resize(720, 480);
        auto* layout = new QVBoxLayout(window);
        auto* text = new QPlainTextEdit(window);
        text->setObjectName(QStringLiteral("report"));
        text->setReadOnly(true);
        text->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
        layout->addWidget(text);
        auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, window);
        QObject::connect(buttons, &QDialogButtonBox::rejected, window, &QDialog::close);
        layout->addWidget(buttons);
    }
    window->show();
    window->raise();
    window->activateWindow();
    return window->findChild<QPlainTextEdit*>(QStringLiteral("report"));
}

}  // namespace

void showDiagnostics() {
    QPlainTextEdit* view = reportView();
    view->setPlainText(QCoreApplication::translate("DiagnosticsWindow", "Running lumerix --doctor") +
                       QChar(0x2026));
    // Asynchronous: the doctor may wait on Bluetooth and the tray must not freeze meanwhile.
    auto* doctor = new QProcess(view);
    doctor->setProcessChannelMode(QProcess::MergedChannels);
    QObject::connect(doctor, &QProcess::finished, view, [doctor, view](int code, QProcess::ExitStatus) {
        Log::logf("Troubleshoot: lumerix --doctor ended with status %d; its report is shown", code);
        view->setPlainText(QString::fromUtf8(doctor->readAll()));
        doctor->deleteLater();
    });
    QObject::connect(doctor, &QProcess::errorOccurred, view, [doctor, view](QProcess::ProcessError error) {
        if (error != QProcess::FailedToStart && error != QProcess::Timedout) return;
        Log::logf("Troubleshoot: lumerix --doctor did not run: %s", qUtf8Printable(doctor->errorString()));
        view->setPlainText(
            QCoreApplication::translate("DiagnosticsWindow", "lumerix --doctor did not run: %1")
                .arg(doctor->errorString()));
        doctor->deleteLater();
    });
    doctor->start(QCoreApplication::applicationFilePath(), {QStringLiteral("--doctor")});
    // Whatever it printed so far is shown when it has to be stopped.
    QTimer::singleShot(kDoctorTimeoutMs, doctor, [doctor] { doctor->kill(); });
}

}  // namespace lumerix
