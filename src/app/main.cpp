// lumerix: the tray utility by default; `--scan` runs the headless scan instead.
#include <cstring>

#include "app/GattReadMode.h"
#include "app/ScanMode.h"
#include "app/TrayApp.h"

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--gatt-read") == 0) return lumerix::runGattReadMode(argc, argv);
        if (std::strcmp(argv[i], "--scan") == 0) return lumerix::runScanMode(argc, argv);
    }
    return lumerix::runTrayApp(argc, argv);
}
