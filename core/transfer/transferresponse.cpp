#include "core/transfer/transferresponse.h"

#include <utility>

namespace velmora::transfer {

bool TransferResponseData::push(uint64_t position, std::string chunk) {
    if (chunk.empty()) return true;
    if (position < nextOffset_) return false;
    return chunks_.emplace(position, std::move(chunk)).second;
}

std::string TransferResponseData::pop() {
    const auto first = chunks_.begin();
    if (first == chunks_.end() || first->first != nextOffset_) return {};
    std::string chunk = std::move(first->second);
    chunks_.erase(first);
    nextOffset_ += chunk.size();
    return chunk;
}

}  // namespace velmora::transfer
