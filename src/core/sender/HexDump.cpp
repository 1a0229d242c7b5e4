#include "sender/HexDump.h"

#include <cstdio>
#include <cstring>

namespace lumerix {

void HexDump(const void* data, uint32_t length, uint64_t base) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    constexpr size_t kHexWidth = 60;  // label (12) + 16 pieces of 3

    for (uint64_t offset = 0; offset < length; offset += 16) {
        char line[256];
        char firstGroup[9] = {};
        char secondGroup[9] = {};
        const auto address = static_cast<uint32_t>(base + offset);
        int used = std::snprintf(line, sizeof line, "[%04X:%04X] ", address >> 16, address & 0xFFFF);

        for (uint32_t k = 0; k < 16 && offset + k < length; ++k) {
            const auto i = static_cast<uint32_t>(offset + k);
            const uint8_t b = bytes[i];
            char piece[8];
            const bool dash = i != length - 1 && i % 16 == 7 && i != 0;
            std::snprintf(piece, sizeof piece, dash ? "%02X-" : "%02X ", b);
            used += std::snprintf(line + used, sizeof line - static_cast<size_t>(used), "%s", piece);
            const char shown = (b >= 32 && b <= 126) ? static_cast<char>(b) : '.';
            if (k < 8)
                firstGroup[k] = shown;
            else
                secondGroup[k - 8] = shown;
        }
        while (static_cast<size_t>(used) < kHexWidth) line[used++] = ' ';
        line[used] = '\0';

        std::snprintf(line + used, sizeof line - static_cast<size_t>(used), "|%s%s%s|", firstGroup,
                      secondGroup[0] != '\0' ? " " : "", secondGroup);
        std::printf("%s\n", line);
        std::fflush(stdout);
    }
}

}  // namespace lumerix
