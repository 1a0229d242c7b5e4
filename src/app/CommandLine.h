#pragma once
// The one command line of `lumerix`: which mode runs and with what options. Parsing needs no
// application object, no display and no D-Bus, so `--help`, `--version` and usage errors are
// answered before anything else starts.
//
// Adding an option: a row in the option table of CommandLine.cpp (names, value, the modes it goes
// with), a field here, and its conversion in parseCommandLine(). Adding a mode: a Mode value and a
// row in the mode table (its option and usage line).
#include <QString>
#include <QStringList>
#include <optional>

namespace lumerix {

struct CommandLine {
    enum class Mode { Tray, Scan, GattRead, Doctor, List, Connect, Help, Version };

    static constexpr double kDefaultScanSeconds = 10.0;

    Mode mode = Mode::Tray;
    bool demo = false;                         // --demo: simulated receivers
    bool autostart = false;                    // --autostart: login mode, no alert
    bool json = false;                         // --json: machine-readable output
    double scanSeconds = kDefaultScanSeconds;  // --scan [SECONDS]
    QString identifier;                        // --gatt-read IDENTIFIER
    std::optional<double> timeoutSeconds;      // --timeout SECONDS; unset: the mode's default
    QString receiver;                          // --connect NAME|IDENTIFIER|nearest
    QString recordPath;                        // --record FILE: append advertisements heard
    QString replayPath;                        // --replay FILE: play a recorded trace instead
};

struct CommandLineResult {
    CommandLine options;
    QString error;  // non-empty: a usage error, to be printed with usageText()
    bool ok() const { return error.isEmpty(); }
};

// arguments[0] is the program name.
CommandLineResult parseCommandLine(const QStringList& arguments);

// The usage lines, one per mode.
QString usageText();
// --help: the usage lines, a short description and every option.
QString helpText();
// --version: "lumerix <version>".
QString versionText();

// Exit status for a usage error (EX_USAGE).
inline constexpr int kExitUsage = 64;

}  // namespace lumerix
