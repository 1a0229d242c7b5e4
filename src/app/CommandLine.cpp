#include "app/CommandLine.h"

#include <QCommandLineParser>
#include <algorithm>
#include <initializer_list>
#include <vector>

#ifndef LUMERIX_VERSION
#define LUMERIX_VERSION "0"
#endif

namespace lumerix {
namespace {

using Mode = CommandLine::Mode;

constexpr double kMaxScanSeconds = 86400;
constexpr double kMaxTimeoutSeconds = 3600;

// The options that choose a mode; none chooses the tray.
struct ModeSpec {
    Mode mode;
    QString option;  // long name, empty for the tray
    QString usage;   // the arguments after "lumerix"
};

const std::vector<ModeSpec>& modes() {
    static const std::vector<ModeSpec> table = {
        {Mode::Tray, QString(), QStringLiteral("[--autostart] [--demo]")},
        {Mode::Scan, QStringLiteral("scan"), QStringLiteral("--scan [SECONDS] [--json] [--demo]")},
        {Mode::GattRead, QStringLiteral("gatt-read"),
         QStringLiteral("--gatt-read IDENTIFIER [--timeout SECONDS] [--demo]")},
        {Mode::Doctor, QStringLiteral("doctor"), QStringLiteral("--doctor [--json]")},
        {Mode::List, QStringLiteral("list"), QStringLiteral("--list [--json] [--timeout SECONDS] [--demo]")},
        {Mode::Connect, QStringLiteral("connect"),
         QStringLiteral("--connect NAME|IDENTIFIER|nearest [--timeout SECONDS] [--demo]")},
        {Mode::Help, QStringLiteral("help"), QStringLiteral("--help | --version")},
        {Mode::Version, QStringLiteral("version"), QString()},
    };
    return table;
}

struct OptionSpec {
    QStringList names;
    QString valueName;  // empty: a flag; in brackets: the value may be left out
    QString description;
    std::vector<Mode> modes;  // the modes it goes with; empty: it chooses a mode itself
};

const std::vector<OptionSpec>& options() {
    static const std::vector<OptionSpec> table = {
        {{QStringLiteral("scan")},
         QStringLiteral("[SECONDS]"),
         QStringLiteral("Scan without the tray and print the receivers (10 seconds unless given)."),
         {}},
        {{QStringLiteral("gatt-read")},
         QStringLiteral("IDENTIFIER"),
         QStringLiteral("Read one receiver's connection information over GATT (a diagnostic)."),
         {}},
        {{QStringLiteral("doctor")},
         QString(),
         QStringLiteral("Check Bluetooth, the desktop and the sender, one line per check."),
         {}},
        {{QStringLiteral("list")},
         QString(),
         QStringLiteral("Print the receivers nearby, from the running tray or from a scan of its own."),
         {}},
        {{QStringLiteral("connect")},
         QStringLiteral("NAME|IDENTIFIER|nearest"),
         QStringLiteral("Hand a receiver to the sender, through the running tray or on its own."),
         {}},
        {{QStringLiteral("autostart")},
         QString(),
         QStringLiteral("Login mode: no alert; wait in the tray until Bluetooth is on."),
         {Mode::Tray}},
        {{QStringLiteral("demo")},
         QString(),
         QStringLiteral("Show simulated receivers instead of scanning."),
         {Mode::Tray, Mode::Scan, Mode::GattRead, Mode::List, Mode::Connect}},
        {{QStringLiteral("json")},
         QString(),
         QStringLiteral("Print JSON instead of text."),
         {Mode::Scan, Mode::Doctor, Mode::List}},
        {{QStringLiteral("timeout")},
         QStringLiteral("SECONDS"),
         QStringLiteral(
             "Give up after this long (--gatt-read: 20 seconds; --list, --connect: scan 5 seconds)."),
         {Mode::GattRead, Mode::List, Mode::Connect}},
        {{QStringLiteral("record")},
         QStringLiteral("FILE"),
         QStringLiteral("Append every advertisement heard to FILE, one JSON line each."),
         {Mode::Tray, Mode::Scan}},
        {{QStringLiteral("replay")},
         QStringLiteral("FILE"),
         QStringLiteral("Play the advertisements recorded in FILE instead of scanning."),
         {Mode::Tray, Mode::Scan}},
        {{QStringLiteral("h"), QStringLiteral("help")}, QString(), QStringLiteral("Show this help."), {}},
        {{QStringLiteral("v"), QStringLiteral("version")},
         QString(),
         QStringLiteral("Show the version."),
         {}},
    };
    return table;
}

QString dashed(const QString& name) {
    return (name.size() == 1 ? QStringLiteral("-") : QStringLiteral("--")) + name;
}

QString longName(const OptionSpec& o) { return dashed(o.names.constLast()); }

// An optional value ("--scan [SECONDS]") is beyond QCommandLineParser: a bare "--scan" (last, or
// followed by another option) becomes "--scan=", and the empty value means the default.
QStringList withOptionalValues(const QStringList& arguments) {
    QStringList optional;
    for (const OptionSpec& o : options()) {
        if (o.valueName.startsWith(QLatin1Char('['))) optional << longName(o);
    }
    QStringList out = arguments;
    for (qsizetype i = 1; i < out.size(); ++i) {
        if (out.at(i) == QLatin1String("--")) break;
        if (!optional.contains(out.at(i))) continue;
        if (i + 1 == out.size() || out.at(i + 1).startsWith(QLatin1Char('-'))) out[i] += QLatin1Char('=');
    }
    return out;
}

std::optional<double> seconds(const QString& text, double max) {
    bool ok = false;
    const double value = text.toDouble(&ok);
    if (!ok || !(value > 0) || value > max) return std::nullopt;
    return value;
}

QString modeList(const std::vector<Mode>& allowed) {
    QStringList names;
    for (Mode m : allowed) {
        for (const ModeSpec& row : modes()) {
            if (row.mode == m)
                names << (row.option.isEmpty() ? QStringLiteral("the tray") : dashed(row.option));
        }
    }
    if (names.size() < 2) return names.join(QString());
    const QString last = names.takeLast();
    return names.join(QStringLiteral(", ")) + QStringLiteral(" or ") + last;
}

}  // namespace

// NOLINTNEXTLINE(readability-function-cognitive-complexity): one check after another, in usage order
CommandLineResult parseCommandLine(const QStringList& arguments) {
    CommandLineResult result;
    CommandLine& cl = result.options;

    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsCompactedShortOptions);
    for (const OptionSpec& o : options()) {
        QCommandLineOption option(o.names, o.description);
        if (!o.valueName.isEmpty()) option.setValueName(o.valueName);
        parser.addOption(option);
    }
    if (!parser.parse(
            withOptionalValues(arguments.isEmpty() ? QStringList{QStringLiteral("lumerix")} : arguments))) {
        result.error = parser.errorText();
        return result;
    }
    if (!parser.positionalArguments().isEmpty()) {
        result.error =
            QStringLiteral("Unexpected argument '%1'.").arg(parser.positionalArguments().constFirst());
        return result;
    }

    // --help and --version answer whatever else was given.
    if (parser.isSet(QStringLiteral("help"))) {
        cl.mode = Mode::Help;
        return result;
    }
    if (parser.isSet(QStringLiteral("version"))) {
        cl.mode = Mode::Version;
        return result;
    }

    QString modeOption;
    for (const ModeSpec& row : modes()) {
        if (row.option.isEmpty() || !parser.isSet(row.option)) continue;
        if (!modeOption.isEmpty()) {
            result.error =
                QStringLiteral("%1 and %2 cannot be used together.").arg(modeOption, dashed(row.option));
            return result;
        }
        modeOption = dashed(row.option);
        cl.mode = row.mode;
    }

    for (const OptionSpec& o : options()) {
        if (o.modes.empty() || !parser.isSet(o.names.constLast())) continue;
        if (std::find(o.modes.begin(), o.modes.end(), cl.mode) == o.modes.end()) {
            result.error = QStringLiteral("%1 goes only with %2.").arg(longName(o), modeList(o.modes));
            return result;
        }
    }

    cl.demo = parser.isSet(QStringLiteral("demo"));
    cl.autostart = parser.isSet(QStringLiteral("autostart"));
    cl.json = parser.isSet(QStringLiteral("json"));
    if (cl.mode == Mode::Scan) {
        const QString value = parser.value(QStringLiteral("scan"));
        if (!value.isEmpty()) {
            const auto s = seconds(value, kMaxScanSeconds);
            if (!s) {
                result.error =
                    QStringLiteral("The scan duration must be a number of seconds up to %1, got '%2'.")
                        .arg(kMaxScanSeconds)
                        .arg(value);
                return result;
            }
            cl.scanSeconds = *s;
        }
    }
    if (cl.mode == Mode::GattRead) {
        cl.identifier = parser.value(QStringLiteral("gatt-read")).trimmed();
        if (cl.identifier.isEmpty() || cl.identifier.startsWith(QLatin1Char('-'))) {
            result.error = QStringLiteral("--gatt-read needs a receiver's IDENTIFIER.");
            return result;
        }
    }
    if (cl.mode == Mode::Connect) {
        cl.receiver = parser.value(QStringLiteral("connect")).trimmed();
        if (cl.receiver.isEmpty() || cl.receiver.startsWith(QLatin1Char('-'))) {
            result.error = QStringLiteral("--connect needs a receiver's NAME, its IDENTIFIER or nearest.");
            return result;
        }
    }
    cl.recordPath = parser.value(QStringLiteral("record"));
    cl.replayPath = parser.value(QStringLiteral("replay"));
    if (parser.isSet(QStringLiteral("record")) && cl.recordPath.isEmpty()) {
        result.error = QStringLiteral("--record needs a FILE.");
        return result;
    }
    if (parser.isSet(QStringLiteral("replay")) && cl.replayPath.isEmpty()) {
        result.error = QStringLiteral("--replay needs a FILE.");
        return result;
    }
    if (cl.demo && !cl.replayPath.isEmpty()) {
        result.error = QStringLiteral("--demo and --replay cannot be used together.");
        return result;
    }
    if (parser.isSet(QStringLiteral("timeout"))) {
        const QString value = parser.value(QStringLiteral("timeout"));
        cl.timeoutSeconds = seconds(value, kMaxTimeoutSeconds);
        if (!cl.timeoutSeconds) {
            result.error = QStringLiteral("The timeout must be a number of seconds up to %1, got '%2'.")
                               .arg(kMaxTimeoutSeconds)
                               .arg(value);
            return result;
        }
    }
    return result;
}

QString usageText() {
    QString text;
    for (const ModeSpec& row : modes()) {
        if (row.usage.isEmpty()) continue;
        text += (text.isEmpty() ? QStringLiteral("Usage: lumerix ") : QStringLiteral("       lumerix ")) +
                row.usage + QLatin1Char('\n');
    }
    return text;
}

QString helpText() {
    QString text = usageText();
    text += QStringLiteral(
        "\nLists the presentation receivers nearby in the tray, strongest first, and hands the one\n"
        "you pick to the sender application.\n\nOptions:\n");
    QStringList left;
    for (const OptionSpec& o : options()) {
        QStringList names;
        for (const QString& n : o.names) names << dashed(n);
        QString l = names.join(QStringLiteral(", "));
        if (!o.valueName.isEmpty()) l += QLatin1Char(' ') + o.valueName;
        left << l;
    }
    qsizetype width = 0;
    for (const QString& l : left) width = std::max(width, l.size());
    for (size_t i = 0; i < options().size(); ++i) {
        text += QStringLiteral("  ") + left.at(static_cast<qsizetype>(i)).leftJustified(width + 2) +
                options().at(i).description + QLatin1Char('\n');
    }
    text += QStringLiteral(
        "\nExit status: 0 on success, 1 when --doctor finds a problem or there is no display,\n"
        "2 when Bluetooth is off or missing, 3 when --gatt-read times out or --connect finds no\n"
        "such receiver, 64 on a usage error.\n");
    return text;
}

QString versionText() { return QStringLiteral("lumerix " LUMERIX_VERSION "\n"); }

}  // namespace lumerix
