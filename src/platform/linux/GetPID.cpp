#include "platform/linux/GetPID.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

namespace lumerix {
namespace {

constexpr size_t kCommandNameCompareLength = 16;

// Reads a small /proc file into buf (zero-terminated); false when it cannot be read, e.g. the
// process ended meanwhile.
bool readProcFile(const char* path, char* buf, size_t size) {
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd == -1) return false;
    size_t used = 0;
    while (used + 1 < size) {
        const ssize_t n = ::read(fd, buf + used, size - 1 - used);
        if (n < 0) {
            if (errno == EINTR) continue;
            ::close(fd);
            return false;
        }
        if (n == 0) break;
        used += static_cast<size_t>(n);
    }
    ::close(fd);
    buf[used] = '\0';
    return true;
}

bool readComm(int32_t pid, char* comm, size_t size) {
    char path[48];
    std::snprintf(path, sizeof path, "/proc/%d/comm", pid);
    if (!readProcFile(path, comm, size)) return false;
    if (char* end = std::strchr(comm, '\n')) *end = '\0';
    return true;
}

// The effective uid: the second number of the "Uid:" line of /proc/<pid>/status.
bool readEffectiveUid(int32_t pid, uint32_t* uid) {
    char path[48];
    std::snprintf(path, sizeof path, "/proc/%d/status", pid);
    char status[4096];
    if (!readProcFile(path, status, sizeof status)) return false;
    const char* line = std::strstr(status, "\nUid:");
    if (line == nullptr) return false;
    char* end = nullptr;
    std::strtoul(line + 5, &end, 10);  // real uid
    const char* effective = end;
    const unsigned long value = std::strtoul(effective, &end, 10);
    if (end == effective) return false;
    *uid = static_cast<uint32_t>(value);
    return true;
}

// Numeric entries of /proc in ascending order; -3 with errno when /proc cannot be read.
int listProcessIds(std::vector<int32_t>& pids, int* error) {
    DIR* dir = ::opendir("/proc");
    if (dir == nullptr) {
        if (error) *error = errno;
        return -3;
    }
    errno = 0;
    while (const dirent* entry = ::readdir(dir)) {
        char* end = nullptr;
        const long pid = std::strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0' || pid <= 0 || pid > INT32_MAX) continue;
        pids.push_back(static_cast<int32_t>(pid));
    }
    const int readError = errno;
    ::closedir(dir);
    if (readError != 0) {
        if (error) *error = readError;
        return -3;
    }
    std::sort(pids.begin(), pids.end());
    return 0;
}

}  // namespace

int GetAllPIDsForProcessName(const char* name, uint32_t uid, int32_t* pids, uint32_t capacity,
                             uint32_t* count, int* error) {
    if (name == nullptr || pids == nullptr || capacity == 0 || count == nullptr) return -2;
    std::memset(pids, 0, sizeof(int32_t) * capacity);
    *count = 0;
    if (error) *error = 0;

    std::vector<int32_t> table;
    try {
        table.reserve(1024);
        if (const int rc = listProcessIds(table, error); rc != 0) return rc;
    } catch (const std::bad_alloc&) {
        if (error) *error = ENOMEM;
        return -4;
    }
    for (const int32_t pid : table) {
        char comm[64];
        if (!readComm(pid, comm, sizeof comm)) continue;  // ended meanwhile
        if (std::strncmp(comm, name, kCommandNameCompareLength) != 0) continue;
        if (uid != 0) {
            uint32_t euid = 0;
            if (!readEffectiveUid(pid, &euid) || euid != uid) continue;
        }
        if (*count + 1 > capacity) return -5;
        pids[(*count)++] = pid;
    }
    return *count != 0 ? 0 : -1;
}

int32_t GetPIDForProcessName(const char* name) {
    int32_t pid = 0;
    uint32_t count = 0;
    if (GetAllPIDsForProcessName(name, 0, &pid, 1, &count, nullptr) == 0 && count == 1) return pid;
    return -1;
}

}  // namespace lumerix
