// Process lookup against real processes started under a unique command name.
#include <gtest/gtest.h>
#include <unistd.h>

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "sender/GetPID.h"

namespace lumerix {
namespace {

// Children that run sleep under `name`: the kernel takes the process name from the path that was
// executed, so a symlink to sleep will do.
class Children {
public:
    explicit Children(const std::string& name) : link_(dir_.filePath(QString::fromStdString(name))) {
        if (!QFile::link(QStringLiteral("/bin/sleep"), link_)) ADD_FAILURE() << "symlink";
    }
    ~Children() {
        for (auto& p : processes_) {
            p->kill();
            p->waitForFinished();
        }
    }
    qint64 spawn() {
        processes_.push_back(std::make_unique<QProcess>());
        processes_.back()->start(link_, {QStringLiteral("60")});
        return processes_.back()->waitForStarted() ? processes_.back()->processId() : -1;
    }

private:
    QTemporaryDir dir_;
    QString link_;
    std::vector<std::unique_ptr<QProcess>> processes_;
};

// The pids pgrep finds for an exact process name, ascending.
std::vector<int32_t> pgrep(const std::string& name) {
    QProcess p;
    p.start(QStringLiteral("pgrep"), {QStringLiteral("-x"), QString::fromStdString(name)});
    p.waitForFinished(10000);
    std::vector<int32_t> out;
    for (const QByteArray& line : p.readAllStandardOutput().split('\n'))
        if (!line.isEmpty()) out.push_back(line.toInt());
    std::sort(out.begin(), out.end());
    return out;
}

TEST(GetAllPIDsForProcessName, AgreesWithPgrep) {
    const std::string name = "lmx" + std::to_string(::getpid() % 100000000);  // at most 11 characters
    Children children(name);
    const qint64 first = children.spawn();
    EXPECT_EQ(GetPIDForProcessName(name.c_str()), first) << "one running";
    ASSERT_GT(children.spawn(), 0);
    const std::vector<int32_t> found = pgrep(name);
    ASSERT_EQ(found.size(), 2u) << "pgrep sees both children";

    const struct {
        const char* what;
        std::string name;
        uint32_t capacity;
        int expected;
        std::vector<int32_t> pids;  // the whole array after the call
    } cases[] = {
        {"two matches, room for three", name, 3, 0, {found[0], found[1], 0}},
        {"capacity one overflows, the first stays", name, 1, -5, {found[0]}},
        {"unknown name", name + "x", 3, -1, {0, 0, 0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<int32_t> pids(c.capacity, 77);
        uint32_t count = 99;
        int error = 99;
        EXPECT_EQ(GetAllPIDsForProcessName(c.name.c_str(), 0, pids.data(), c.capacity, &count, &error),
                  c.expected);
        EXPECT_EQ(pids, c.pids);
        EXPECT_EQ(error, 0);
    }
    EXPECT_EQ(GetPIDForProcessName(name.c_str()), -1) << "two running";
}

}  // namespace
}  // namespace lumerix
