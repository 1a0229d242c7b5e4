// Process lookup against real processes started under a unique command name.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/GetPID.h"

extern char** environ;

namespace lumerix {
namespace {

// Children that run sleep under `name`: the kernel takes the process name from the path that was
// executed, so a symlink to sleep will do. posix_spawn and popen rather than QProcess, whose
// clone-based spawn the thread sanitizer rejects.
class Children {
public:
    explicit Children(const std::string& name) : name_(name), link_(dir_.path().toStdString() + "/" + name) {
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
        for (int attempt = 0; attempt < 20000 && firstLine(comm) != name_; ++attempt)
            std::this_thread::yield();
        return pid;
    }

private:
    static std::string firstLine(const std::string& path) {
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

// The pids pgrep finds for an exact process name, ascending.
std::vector<int32_t> pgrep(const std::string& name) {
    std::vector<int32_t> out;
    FILE* pipe = popen(("pgrep -x " + name).c_str(), "r");
    if (!pipe) return out;
    for (int pid = 0; std::fscanf(pipe, "%d", &pid) == 1;) out.push_back(pid);
    pclose(pipe);
    std::sort(out.begin(), out.end());
    return out;
}

TEST(GetAllPIDsForProcessName, AgreesWithPgrep) {
    const std::string name = "lmx" + std::to_string(::getpid() % 100000000);  // at most 11 characters
    Children children(name);
    const pid_t first = children.spawn();
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
