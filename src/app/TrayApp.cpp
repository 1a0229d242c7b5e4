#include "app/TrayApp.h"

#include <cstdio>

namespace lumerix {
int runTrayApp(int, char**) {
    std::fputs("lumerix: the tray is not available yet\n", stderr);
    return 2;
}
}  // namespace lumerix
