#pragma once
// "Troubleshoot" from a failure notification: runs this program's own `--doctor` and shows its
// report in a window, or brings the window already open to the front with a fresh report.
namespace lumerix {
void showDiagnostics();
}
