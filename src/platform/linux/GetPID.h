#pragma once
// Whether a process of a given command name runs, and with which ids: the process table read from
// /proc (comm, effective uid from status) in ascending pid order. The shell reaches it through
// its ProcessLookup port.
#include <cstdint>

namespace lumerix {

// 0 found; -1 none matched; -2 argument missing; -3 table unreadable (*error = errno);
// -4 out of memory (*error = ENOMEM); -5 more matches than capacity.
int GetAllPIDsForProcessName(const char* name, uint32_t uid, int32_t* pids, uint32_t capacity,
                             uint32_t* count, int* error);
// The one process id of a uniquely running process, else -1.
int32_t GetPIDForProcessName(const char* name);

}  // namespace lumerix
