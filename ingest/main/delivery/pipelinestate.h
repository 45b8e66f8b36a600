// What a line may do with events.
#pragma once

#include <cstdint>
#include <string>

namespace velmora {

// Ordered: the lesser of two limits is the one in force.
enum class PipelineState : int32_t {
    Off = 0,       // events are refused
    SaveOnly = 1,  // events are stored, nothing is sent
    On = 2,        // events are stored and sent
};

[[nodiscard]] inline std::string toString(PipelineState state) {
    switch (state) {
        case PipelineState::Off:
            return "Off";
        case PipelineState::SaveOnly:
            return "SaveOnly";
        case PipelineState::On:
            return "On";
    }
    return "unknown";
}

}  // namespace velmora
