#pragma once
// The one checked copy into fixed-size records. A copy longer than the space its destination
// allows is a broken invariant, not bad input to survive: it is logged and the process ends,
// the way a fortified copy fails, instead of writing past the record.
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "log/Log.h"

namespace lumerix {

// Copies length bytes from src to dst, where bound is the space from dst to the end of its record.
inline void checkedCopy(void* dst, size_t bound, const void* src, size_t length, const char* what) {
    if (length > bound) {
        Log::logf("Fatal: copy of %zu bytes into %s exceeds its %zu-byte bound; stopping", length, what,
                  bound);
        std::abort();
    }
    if (length > 0) std::memcpy(dst, src, length);
}

}  // namespace lumerix
