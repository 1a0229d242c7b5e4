#include "app/CommandLine.h"

#include <QCommandLineParser>
#include <QCoreApplication>
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
    QString valueName;        // empty: a flag; in brackets: the value may be left out
    const char* description;  // translated when shown
    std::vector<Mode> modes;  // the modes it goes with; empty: it chooses a mode itself
};

const std::vector<OptionSpec>& options() {
    static const std::vector<OptionSpec> table = {
        {{QStringLiteral("scan")},
         QStringLiteral("[SECONDS]"),
         QT_TRANSLATE_NOOP("CommandLine",
                           "Scan without the tray and print the receivers (10 seconds unless given)."),
         {}},
        {{QStringLiteral("gatt-read")},
         QStringLiteral("IDENTIFIER"),
         QT_TRANSLATE_NOOP("CommandLine",
                           "Read one receiver's connection information over GATT (a diagnostic)."),
         {}},
        {{QStringLiteral("doctor")},
         QString(),
         QT_TRANSLATE_NOOP("CommandLine", "Check Bluetooth, the desktop and the sender, one line per check."),
         {}},
        {{QStringLiteral("list")},
         QString(),
         QT_TRANSLATE_NOOP("CommandLine",
                           "Print the receivers nearby, from the running tray or from a scan of its own."),
         {}},
        {{QStringLiteral("connect")},
         QStringLiteral("NAME|IDENTIFIER|nearest"),
         QT_TRANSLATE_NOOP("CommandLine",
                           "Hand a receiver to the sender, through the running tray or on its own."),
         {}},
        {{QStringLiteral("autostart")},
         QString(),
         QT_TRANSLATE_NOOP("CommandLine", "Login mode: no alert; wait in the tray until Bluetooth is on."),
         {Mode::Tray}},
        {{QStringLiteral("demo")},
         QString(),
         QT_TRANSLATE_NOOP("CommandLine", "Show simulated receivers instead of scanning."),
         {Mode::Tray, Mode::Scan, Mode::GattRead, Mode::List, Mode::Connect}},
        {{QStringLiteral("json")},
         QString(),
         QT_TRANSLATE_NOOP("CommandLine", "Print JSON instead of text."),
         {Mode::Scan, Mode::Doctor, Mode::List}},
        {{QStringLiteral("timeout")},
         QStringLiteral("SECONDS"),
         QT_TRANSLATE_NOOP(
             "CommandLine",
             "Give up after this long (--gatt-read: 20 seconds; --list, --connect: scan 5 seconds)."),
         {Mode::GattRead, Mode::List, Mode::Connect}},
        {{QStringLiteral("record")},
         QStringLiteral("FILE"),
         QT_TRANSLATE_NOOP("CommandLine", "Append every advertisement heard to FILE, one JSON line each."),
         {Mode::Tray, Mode::Scan}},
        {{QStringLiteral("replay")},
         QStringLiteral("FILE"),
         QT_TRANSLATE_NOOP("CommandLine", "Play the advertisements recorded in FILE instead of scanning."),
         {Mode::Tray, Mode::Scan}},
        {{QStringLiteral("h"), QStringLiteral("help")},
         QString(),
         QT_TRANSLATE_NOOP("CommandLine", "Show this help."),
         {}},
        {{QStringLiteral("v"), QStringLiteral("version")},
         QString(),
         QT_TRANSLATE_NOOP("CommandLine", "Show the version."),
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
                names << (row.option.isEmpty() ? QCoreApplication::translate("CommandLine", "the tray")
                                               : dashed(row.option));
        }
    }
    if (names.size() < 2) return names.join(QString());
    const QString last = names.takeLast();
    return QCoreApplication::translate("CommandLine", "%1 or %2").arg(names.join(QStringLiteral(", ")), last);
}

}  // namespace

// NOLINTNEXTLINE(readability-function-cognitive-complexity): one check after another, in usage order
CommandLineResult parseCommandLine(const QStringList& arguments) {
    CommandLineResult result;
    CommandLine& cl = result.options;

    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsCompactedShortOptions);
    for (const OptionSpec& o : options()) {
        QCommandLineOption option(o.names, QString::fromUtf8(o.description));
        if (!o.valueName.isEmpty()) option.setValueName(o.valueName);
        parser.addOption(option);
    }
    if (!parser.parse(
            withOptionalValues(arguments.isEmpty() ? QStringList{QStringLiteral("lumerix")} : arguments))) {
        result.error = parser.errorText();
        return result;
    }
    if (!parser.positionalArguments().isEmpty()) {
        result.error = QCoreApplication::translate("CommandLine", "Unexpected argument '%1'.")
                           .arg(parser.positionalArguments().constFirst());
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
            result.error = QCoreApplication::translate("CommandLine", "%1 and %2 cannot be used together.")
                               .arg(modeOption, dashed(row.option));
            return result;
        }
        modeOption = dashed(row.option);
        cl.mode = row.mode;
    }

    for (const OptionSpec& o : options()) {
        if (o.modes.empty() || !parser.isSet(o.names.constLast())) continue;
        if (std::find(o.modes.begin(), o.modes.end(), cl.mode) == o.modes.end()) {
            result.error = QCoreApplication::translate("CommandLine", "%1 goes only with %2.")
                               .arg(longName(o), modeList(o.modes));
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
                    QCoreApplication::translate(
                        "CommandLine", "The scan duration must be a number of seconds up to %1, got '%2'.")
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
            result.error =
                QCoreApplication::translate("CommandLine", "--gatt-read needs a receiver's IDENTIFIER.");
            return result;
        }
    }
    if (cl.mode == Mode::Connect) {
        cl.receiver = parser.value(QStringLiteral("connect")).trimmed();
        if (cl.receiver.isEmpty() || cl.receiver.startsWith(QLatin1Char('-'))) {
            result.error = QCoreApplication::translate(
                "CommandLine", "--connect needs a receiver's NAME, its IDENTIFIER or nearest.");
            return result;
        }
    }
    cl.recordPath = parser.value(QStringLiteral("record"));
    cl.replayPath = parser.value(QStringLiteral("replay"));
    if (parser.isSet(QStringLiteral("record")) && cl.recordPath.isEmpty()) {
        result.error = QCoreApplication::translate("CommandLine", "--record needs a FILE.");
        return result;
    }
    if (parser.isSet(QStringLiteral("replay")) && cl.replayPath.isEmpty()) {
        result.error = QCoreApplication::translate("CommandLine", "--replay needs a FILE.");
        return result;
    }
    if (cl.demo && !cl.replayPath.isEmpty()) {
        result.error =
            QCoreApplication::translate("CommandLine", "--demo and --replay cannot be used together.");
        return result;
    }
    if (parser.isSet(QStringLiteral("timeout"))) {
        const QString value = parser.value(QStringLiteral("timeout"));
        cl.timeoutSeconds = seconds(value, kMaxTimeoutSeconds);
        if (!cl.timeoutSeconds) {
            result.error = QCoreApplication::translate(
                               "CommandLine", "The timeout must be a number of seconds up to %1, got '%2'.")
                               .arg(kMaxTimeoutSeconds)
                               .arg(value);
            return result;
        }
    }
    return result;
}

QString usageText() {
    const QString first = QCoreApplication::translate("CommandLine", "Usage:") + QStringLiteral(" lumerix ");
    const QString next = QString(first.size() - 8, QLatin1Char(' ')) + QStringLiteral("lumerix ");
    QString text;
    for (const ModeSpec& row : modes()) {
        if (row.usage.isEmpty()) continue;
        text += (text.isEmpty() ? first : next) + row.usage + QLatin1Char('\n');
    }
    return text;
}

namespace {

constexpr qsizetype kHelpColumns = 80;

// text folded at word boundaries to lines that, after indent columns, stay within kHelpColumns.
QString folded(const QString& text, qsizetype indent, qsizetype firstLineUsed) {
    QString out;
    qsizetype used = firstLineUsed;
    for (const QString& word : text.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        const bool first = used == firstLineUsed && out.isEmpty();
        if (!first && used + 1 + word.size() >= kHelpColumns) {
            out += QLatin1Char('\n') + QString(indent, QLatin1Char(' '));
            used = indent;
        } else if (!first) {
            out += QLatin1Char(' ');
            ++used;
        }
        out += word;
        used += word.size();
    }
    return out + QLatin1Char('\n');
}

}  // namespace

QString helpText() {
    QString text = usageText();
    text += QLatin1Char('\n') +
            folded(QCoreApplication::translate(
                       "CommandLine",
                       "Lists the presentation receivers nearby in the tray, strongest first, and hands the "
                       "one you pick to the sender application."),
                   0, 0) +
            QLatin1Char('\n') + QCoreApplication::translate("CommandLine", "Options:") + QLatin1Char('\n');
    QStringList left;
    for (const OptionSpec& o : options()) {
        QStringList names;
        for (const QString& n : o.names) names << dashed(n);
        QString l = names.join(QStringLiteral(", "));
        if (!o.valueName.isEmpty()) l += QLatin1Char(' ') + o.valueName;
        left << l;
    }
    // Descriptions start in one column; an option too long for it has its description below.
    constexpr qsizetype kMaxLeft = 24;
    qsizetype width = 0;
    for (const QString& l : left) {
        if (l.size() <= kMaxLeft) width = std::max(width, l.size());
    }
    const qsizetype column = 2 + width + 2;
    for (size_t i = 0; i < options().size(); ++i) {
        const QString& l = left.at(static_cast<qsizetype>(i));
        text += QStringLiteral("  ") + l;
        if (l.size() > width) {
            text += QLatin1Char('\n') + QString(column, QLatin1Char(' '));
        } else {
            text += QString(width + 2 - l.size(), QLatin1Char(' '));
        }
        text +=
            folded(QCoreApplication::translate("CommandLine", options().at(i).description), column, column);
    }
    text += QLatin1Char('\n') +
            folded(QCoreApplication::translate(
                       "CommandLine",
                       "Exit status: 0 on success; 1 when --doctor finds a problem, there is no display or "
                       "another error occurs; 2 when Bluetooth is off or missing; 3 when --gatt-read times "
                       "out or --connect finds no such receiver; 4 when --connect finds no sender "
                       "application installed; 5 when the sender did not take the receiver; 64 on a usage "
                       "error."),
                   0, 0);
    return text;
}

QString versionText() { return QStringLiteral("lumerix " LUMERIX_VERSION "\n"); }

}  // namespace lumerix
