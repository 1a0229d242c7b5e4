#pragma once
// A classic 16-bytes-a-line hex dump to standard output, for looking at frames.
#include <cstdint>

namespace lumerix {

void HexDump(const void* data, uint32_t length, uint64_t base);

}  // namespace lumerix
