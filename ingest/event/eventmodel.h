// The vocabulary by which the system speaks of events: their kinds of line, and what happens to them.
//
// An event itself is JSON text in a string at every stage; there is no event class.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace velmora {

inline constexpr char kSdkVersion[] = "1.36.0+20230314";

// The lines of an instance. The numbers stand in debug records and decide the order of everything that walks the lines.
enum class PipelineKind : int32_t { meta = 0, auth_invalid = 1, auth = 2, anon_invalid = 3, anon = 4 };
inline constexpr int kPipelineKinds = 5;
inline constexpr std::array<PipelineKind, kPipelineKinds> kEveryPipelineKind{
    PipelineKind::meta, PipelineKind::auth_invalid, PipelineKind::auth, PipelineKind::anon_invalid, PipelineKind::anon};

// A line of the signed-in user.
[[nodiscard]] constexpr bool isAuthenticated(PipelineKind kind) noexcept {
    return kind == PipelineKind::auth_invalid || kind == PipelineKind::auth;
}

// A line of records that could not be deciphered, kept as they were stored.
[[nodiscard]] constexpr bool isInvalidLine(PipelineKind kind) noexcept {
    return kind == PipelineKind::auth_invalid || kind == PipelineKind::anon_invalid;
}

// A line whose events are sent with the identity of the signed-in user.
[[nodiscard]] constexpr bool carriesIdentity(PipelineKind kind) noexcept {
    return kind == PipelineKind::meta || kind == PipelineKind::auth;
}

namespace debug {

enum class Item : int32_t { event = 0, http = 1 };
enum class Action : int32_t { saved = 0, rejected = 1, discarded = 2, sent = 3, request = 4 };
enum class Reason : int32_t {
    success = 0,
    error = 1,
    validation = 2,
    opt_out = 3,
    decryption = 4,
    filesize = 5,
    payloadsize = 6
};

}  // namespace debug

// Numbers outside an enumeration print as "unknown".
[[nodiscard]] std::string pipelineKindToString(PipelineKind kind);
[[nodiscard]] std::string itemToString(debug::Item item);
[[nodiscard]] std::string actionToString(debug::Action action);
[[nodiscard]] std::string reasonToString(debug::Reason reason);

// The folder of a line's store inside an instance folder: "meta_events", "auth_invalid_events" and so on.
[[nodiscard]] std::string storeFolderName(PipelineKind kind);

}  // namespace velmora
