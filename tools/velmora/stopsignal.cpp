#include "tools/velmora/stopsignal.h"

#include <csignal>

namespace velmora::tool {
namespace {

volatile std::sig_atomic_t stopSignal = 0;

extern "C" void onStopSignal(int signal) { stopSignal = signal; }

}  // namespace

void catchStopSignals() {
    std::signal(SIGINT, onStopSignal);
    std::signal(SIGTERM, onStopSignal);
}

bool stopWanted() { return stopSignal != 0; }

}  // namespace velmora::tool
