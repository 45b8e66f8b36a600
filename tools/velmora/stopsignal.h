// The user's wish to end a command: SIGINT or SIGTERM.
#pragma once

namespace velmora::tool {

// From now on the two signals are remembered instead of ending the process.
void catchStopSignals();

[[nodiscard]] bool stopWanted();

}  // namespace velmora::tool
