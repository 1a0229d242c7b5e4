// The program ignores SIGPIPE (the app sets that up at start) and the socket code relies on it;
// the tests run the same way, so a peer that closes early fails a send instead of ending the run.
#include <csignal>

namespace {
const bool kBrokenPipeIgnored = [] {
    std::signal(SIGPIPE, SIG_IGN);
    return true;
}();
}  // namespace
