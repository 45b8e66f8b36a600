// One run of `velmora send`: a host program around the library and its ready HTTP stack.
#pragma once

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace velmora::tool {

struct SendOptions {
    std::string configGuid = "5d0c7b3a-0f6e-4a55-9c1b-6f7f1d1f2c01";
    std::string endpoint;  // base URL for all services; empty: the deployment's own hosts
    std::string project = "velmora-cli";
    std::string apiKey = "velmora-cli";
    int32_t environment = 0;  // a velmora_environment
    std::string token;
    std::string dataRoot;  // empty: the user's
    std::string caBundle;
    std::optional<std::string> proxy;  // nothing: the system's, or none if there is an endpoint
    std::vector<std::pair<int32_t, std::string>> config;
    std::string journal;   // file that gets the guid of each accepted event; empty: none
    std::string workflow;  // not empty: the input is text, each line the value of an event of this workflow
    bool auth = false;
    bool batch = true;
    bool flush = true;
    bool progress = false;
    int32_t validate = -1;
    double rate = 0;  // events per second; 0: as fast as they can be read
    std::chrono::seconds timeout{30};
};

struct RejectedLine {
    uint64_t line;
    int32_t result;  // a velmora_result
};

struct SendReport {
    static constexpr size_t kMaxListed = 20;

    uint64_t accepted = 0;
    uint64_t rejected = 0;
    uint64_t foundOnDisk = 0;  // left by earlier runs
    uint64_t leftOnDisk = 0;
    uint64_t delivered = 0;  // accepted now or found, and not left
    std::vector<RejectedLine> firstRejected;

    [[nodiscard]] bool isComplete() const { return rejected == 0 && leftOnDisk == 0; }
};

// Submits every line of the input that is not blank, and waits for the delivery as long as the options say. Ends early,
// with what is not delivered left on disk, when the user asks for the end. Throws std::runtime_error if the library or
// a file can't be used at all. Once per process.
[[nodiscard]] SendReport sendEvents(const SendOptions& options, std::istream& input);

// The name of a velmora_result: "invalid_json" for 2 and so on.
[[nodiscard]] std::string resultName(int32_t result);

}  // namespace velmora::tool
