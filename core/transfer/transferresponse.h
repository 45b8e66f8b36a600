// What a transfer hands out and collects on the way.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "core/http/message.h"

namespace velmora::transfer {

// The outcome of a transfer that was not cancelled.
struct TransferResponse {
    int status = 0;  // HTTP status; 0 with an error
    std::error_code error;
    http::Headers headers;
    std::string message;  // the host's words for an error
};

// Puts body chunks into order. Not synchronised.
class TransferResponseData {
public:
    // Keeps a chunk until its turn; an empty one is nothing. One whose position is taken already, by a waiting chunk or
    // by one that is gone, is refused.
    void push(uint64_t position, std::string chunk);

    // The chunk at nextOffset(), which then moves behind it; empty if that chunk has not come. Waiting chunks whose
    // position an earlier one has covered are refused now.
    [[nodiscard]] std::string pop();

    // The positions of the chunks refused since the last call.
    [[nodiscard]] std::vector<uint64_t> takeRefused() { return std::exchange(refused_, {}); }

    [[nodiscard]] uint64_t nextOffset() const noexcept { return nextOffset_; }

private:
    uint64_t nextOffset_ = 0;
    std::map<uint64_t, std::string> chunks_;
    std::vector<uint64_t> refused_;
};

}  // namespace velmora::transfer
