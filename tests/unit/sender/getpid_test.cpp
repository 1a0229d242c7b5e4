// Process lookup against real processes: children started under a unique command name (the
// kernel takes the name from the path that was executed, so a symlink to sleep will do).
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <fstream>
#include <thread>
#include <sys/wait.h>
#include <unistd.h>

#include <QTemporaryDir>
#include <algorithm>
#include <string>
#include <vector>

#include "sender/GetPID.h"

extern char** environ;

namespace lumerix {
namespace {

class Children {
public:
    explicit Children(const std::string& name) : name_(name) {
        link_ = dir_.path().toStdString() + "/" + name;
        if (::symlink("/bin/sleep", link_.c_str()) != 0) ADD_FAILURE() << "symlink";
    }
    ~Children() {
        for (const pid_t pid : pids_) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    }
    pid_t spawn() {
        char arg0[] = "sleep";
        char arg1[] = "60";
        char* argv[] = {arg0, arg1, nullptr};
        pid_t pid = 0;
        if (::posix_spawn(&pid, link_.c_str(), nullptr, nullptr, argv, environ) != 0) return -1;
        pids_.push_back(pid);
        // glibc returns after the exec, but a sanitizer's posix_spawn may not: wait for the name.
        const std::string comm = "/proc/" + std::to_string(pid) + "/comm";
        for (int attempt = 0; attempt < 20000 && readFirstLine(comm) != name_; ++attempt) std::this_thread::yield();
        return pid;
    }

private:
    static std::string readFirstLine(const std::string& path) {
        std::ifstream in(path);
        std::string line;
        std::getline(in, line);
        return line;
    }

    std::string name_;
    QTemporaryDir dir_;
    std::string link_;
    std::vector<pid_t> pids_;
};

TEST(GetAllPIDsForProcessName, FindsCountsAndOverflows) {
    const std::string name = "lmx" + std::to_string(::getpid() % 100000000);  // at most 11 characters
    Children children(name);
    const pid_t first = children.spawn();
    const pid_t second = children.spawn();
    ASSERT_GT(first, 0);
    ASSERT_GT(second, 0);
    const pid_t low = std::min(first, second);  // ascending pid order
    const pid_t high = std::max(first, second);

    struct LookupCase {
        const char* what;
        std::string name;
        uint32_t uid;
        uint32_t capacity;
        int expected;
        std::vector<int32_t> expectedPids;  // the whole array after the call
    };
    const std::vector<LookupCase> cases = {
        {"two matches, room for three", name, 0, 3, 0, {low, high, 0}},
        {"capacity one overflows, the first stays", name, 0, 1, -5, {low}},
        {"our own uid filters nothing", name, static_cast<uint32_t>(::geteuid()), 3, 0, {low, high, 0}},
        {"another uid filters all", name, static_cast<uint32_t>(::geteuid()) + 4242, 2, -1, {0, 0}},
        {"unknown name", name + "x", 0, 3, -1, {0, 0, 0}},
        {"prefix is not a match", name.substr(0, 5), 0, 2, -1, {0, 0}},
    };
    for (const LookupCase& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<int32_t> pids(c.capacity, 77);
        uint32_t count = 99;
        int error = 99;
        EXPECT_EQ(GetAllPIDsForProcessName(c.name.c_str(), c.uid, pids.data(), c.capacity, &count, &error),
                  c.expected);
        EXPECT_EQ(pids, c.expectedPids);
        EXPECT_EQ(count, static_cast<uint32_t>(std::count_if(c.expectedPids.begin(), c.expectedPids.end(),
                                                             [](int32_t p) { return p != 0; })));
        EXPECT_EQ(error, 0);
    }
    EXPECT_EQ(GetPIDForProcessName(name.c_str()), -1) << "two running";
    EXPECT_EQ(GetPIDForProcessName((name + "x").c_str()), -1);
}

TEST(GetAllPIDsForProcessName, SingleProcessAndMissingArguments) {
    const std::string name = "lmy" + std::to_string(::getpid() % 100000000);
    Children children(name);
    const pid_t only = children.spawn();
    ASSERT_GT(only, 0);
    EXPECT_EQ(GetPIDForProcessName(name.c_str()), only);

    int32_t pids[2] = {5, 6};
    uint32_t count = 7;
    EXPECT_EQ(GetAllPIDsForProcessName(nullptr, 0, pids, 2, &count, nullptr), -2);
    EXPECT_EQ(GetAllPIDsForProcessName(name.c_str(), 0, pids, 0, &count, nullptr), -2);
    EXPECT_EQ(GetAllPIDsForProcessName(name.c_str(), 0, nullptr, 2, &count, nullptr), -2);
    EXPECT_EQ(GetAllPIDsForProcessName(name.c_str(), 0, pids, 2, nullptr, nullptr), -2);
    EXPECT_EQ(pids[0], 5);
    EXPECT_EQ(pids[1], 6);
    EXPECT_EQ(count, 7u) << "outputs untouched";
}

}  // namespace
}  // namespace lumerix
