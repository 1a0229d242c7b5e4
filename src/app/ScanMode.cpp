#include "app/ScanMode.h"

#include <cstdio>

namespace lumerix {
int runScanMode(int, char**) {
    std::fputs("lumerix: the headless scan is not available yet\n", stderr);
    return 2;
}
}  // namespace lumerix
