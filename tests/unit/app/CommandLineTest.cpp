#include "app/CommandLine.h"

#include <gtest/gtest.h>

#include <optional>

namespace lumerix {
namespace {

using Mode = CommandLine::Mode;

QStringList argv(const char* line) {
    QStringList args{QStringLiteral("lumerix")};
    const QString text = QString::fromUtf8(line);
    if (!text.isEmpty()) args << text.split(QLatin1Char(' '));
    return args;
}

struct Accepted {
    const char* line;
    Mode mode;
    bool demo = false;
    bool json = false;
    double scanSeconds = CommandLine::kDefaultScanSeconds;
    const char* identifier = "";
    std::optional<double> timeout = std::nullopt;
    const char* receiver = "";
    const char* record = "";
    const char* replay = "";
};

TEST(CommandLineTest, AcceptedLines) {
    const Accepted cases[] = {
        {"", Mode::Tray},
        {"--demo", Mode::Tray, true},
        {"--scan", Mode::Scan},
        {"--scan 5", Mode::Scan, false, false, 5},
        {"--scan=2.5", Mode::Scan, false, false, 2.5},
        {"--scan --json", Mode::Scan, false, true},
        {"--json --scan 3 --demo", Mode::Scan, true, true, 3},
        {"--scan --demo --json", Mode::Scan, true, true},
        {"--gatt-read 00000000-0000-0000-0000-AABBCCDDEEFF", Mode::GattRead, false, false, 10,
         "00000000-0000-0000-0000-AABBCCDDEEFF"},
        {"--gatt-read abc --timeout 7 --demo", Mode::GattRead, true, false, 10, "abc", 7},
        {"--doctor", Mode::Doctor},
        {"--doctor --json", Mode::Doctor, false, true},
        {"--help", Mode::Help},
        {"-h", Mode::Help},
        {"--scan 5 --help", Mode::Help},
        {"--version", Mode::Version},
        {"-v", Mode::Version},
        {"--list --json", Mode::List, false, true},
        {"--connect Bravo --timeout 2", Mode::Connect, false, false, 10, "", 2, "Bravo"},
        {"--scan --record a.jsonl --replay b.jsonl", Mode::Scan, false, false, 10, "", std::nullopt, "",
         "a.jsonl", "b.jsonl"},
    };
    for (const Accepted& c : cases) {
        SCOPED_TRACE(c.line);
        const CommandLineResult r = parseCommandLine(argv(c.line));
        ASSERT_TRUE(r.ok()) << r.error.toStdString();
        EXPECT_EQ(r.options.mode, c.mode);
        EXPECT_EQ(r.options.demo, c.demo);
        EXPECT_EQ(r.options.json, c.json);
        EXPECT_EQ(r.options.scanSeconds, c.scanSeconds);
        EXPECT_EQ(r.options.identifier, QString::fromUtf8(c.identifier));
        EXPECT_EQ(r.options.receiver, QString::fromUtf8(c.receiver));
        EXPECT_EQ(r.options.recordPath, QString::fromUtf8(c.record));
        EXPECT_EQ(r.options.replayPath, QString::fromUtf8(c.replay));
        EXPECT_EQ(r.options.timeoutSeconds, c.timeout);
    }
}

TEST(CommandLineTest, RejectedLinesSayWhy) {
    const struct {
        const char* line;
        const char* error;
    } cases[] = {
        {"--bogus", "Unknown option 'bogus'"},
        {"-x", "Unknown option 'x'"},
        {"room", "Unexpected argument 'room'"},
        {"--scan abc", "scan duration must be a number of seconds up to 86400, got 'abc'"},
        {"--scan 0", "got '0'"},
        {"--scan 86401", "got '86401'"},
        {"--scan nan", "got 'nan'"},
        {"--scan -5", "Unknown option '5'"},
        {"--gatt-read", "Missing value after '--gatt-read'"},
        {"--gatt-read --demo", "--gatt-read needs a receiver's IDENTIFIER"},
        {"--gatt-read abc --timeout 0", "timeout must be a number of seconds up to 3600, got '0'"},
        {"--gatt-read abc --timeout", "Missing value after '--timeout'"},
        {"--scan --doctor", "--scan and --doctor cannot be used together"},
        {"--gatt-read abc --scan 3", "--scan and --gatt-read cannot be used together"},
        {"--timeout 5", "--timeout goes only with --gatt-read"},
        {"--json", "--json goes only with --scan, --doctor or --list"},
        {"--doctor --demo", "--demo goes only with the tray, --scan, --gatt-read, --list or --connect"},
        {"--gatt-read abc --json", "--json goes only with --scan, --doctor or --list"},
        {"--connect", "Missing value after '--connect'"},
        {"--list --replay t", "--replay goes only with the tray or --scan"},
        {"--demo --replay t", "--demo and --replay cannot be used together"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const CommandLineResult r = parseCommandLine(argv(c.line));
        EXPECT_FALSE(r.ok());
        EXPECT_TRUE(r.error.contains(QString::fromUtf8(c.error))) << r.error.toStdString();
    }
}

TEST(CommandLineTest, HelpNamesEveryModeAndOption) {
    const QString help = helpText();
    for (const char* word : {"lumerix [--autostart] [--demo]", "--scan [SECONDS] [--json] [--demo]",
                             "--gatt-read IDENTIFIER [--timeout SECONDS] [--demo]", "--doctor [--json]",
                             "--help | --version", "-h, --help", "-v, --version", "--timeout SECONDS"}) {
        EXPECT_TRUE(help.contains(QString::fromUtf8(word))) << word;
    }
    EXPECT_TRUE(help.startsWith(usageText()));
    // Its width in both languages, and the version line, are checked on the binary (test_cli).
}

}  // namespace
}  // namespace lumerix
