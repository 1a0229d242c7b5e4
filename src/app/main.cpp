// lumerix: the tray utility by default; the command line picks a headless mode instead.
#include <QCoreApplication>
#include <QStringList>
#include <cstdio>
#include <memory>

#include "app/CommandLine.h"
#include "app/Doctor.h"
#include "app/GattReadMode.h"
#include "app/ReceiverCommands.h"
#include "app/ScanMode.h"
#include "app/Translations.h"
#include "app/TrayApp.h"

namespace {

void print(FILE* stream, const QString& text) {
    std::fputs(text.toLocal8Bit().constData(), stream);
    std::fflush(stream);
}

}  // namespace

int main(int argc, char** argv) {
    using Mode = lumerix::CommandLine::Mode;
    // Parsed before any application object exists: --help, --version and usage errors need
    // neither a display nor D-Bus.
    QStringList arguments;
    for (int i = 0; i < argc; ++i) arguments << QString::fromLocal8Bit(argv[i]);
    lumerix::CommandLineResult parsed = lumerix::parseCommandLine(arguments);
    // Help and usage errors are read by people: in their language, which takes a (display-less)
    // application object; parsed again so that the error is translated too.
    std::unique_ptr<QCoreApplication> textOnly;
    if (!parsed.ok() || parsed.options.mode == Mode::Help) {
        textOnly = std::make_unique<QCoreApplication>(argc, argv);
        lumerix::installTranslations();
        parsed = lumerix::parseCommandLine(arguments);
    }
    if (!parsed.ok()) {
        print(stderr,
              QStringLiteral("lumerix: ") + parsed.error + QStringLiteral("\n\n") + lumerix::usageText());
        return lumerix::kExitUsage;
    }
    const lumerix::CommandLine& options = parsed.options;
    switch (options.mode) {
        case Mode::Help:
            print(stdout, lumerix::helpText());
            return 0;
        case Mode::Version:
            print(stdout, lumerix::versionText());
            return 0;
        case Mode::Scan:
            return lumerix::runScanMode(argc, argv, options);
        case Mode::GattRead:
            return lumerix::runGattReadMode(argc, argv, options);
        case Mode::List:
            return lumerix::runListMode(argc, argv, options);
        case Mode::Connect:
            return lumerix::runConnectMode(argc, argv, options);
        case Mode::Doctor:
            return lumerix::runDoctorMode(argc, argv, options.json);
        case Mode::Tray:
            break;
    }
    return lumerix::runTrayApp(argc, argv, options);
}
