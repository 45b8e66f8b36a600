#include "core/transfer/transferresponse.h"

#include <utility>

namespace velmora::transfer {

void TransferResponseData::push(uint64_t position, std::string chunk) {
    if (chunk.empty()) return;
    const bool isKept = position >= nextOffset_ && chunks_.emplace(position, std::move(chunk)).second;
    if (!isKept) refused_.push_back(position);
}

std::string TransferResponseData::pop() {
    while (!chunks_.empty() && chunks_.begin()->first < nextOffset_) {
        refused_.push_back(chunks_.begin()->first);
        chunks_.erase(chunks_.begin());
    }
    const auto first = chunks_.begin();
    if (first == chunks_.end() || first->first != nextOffset_) return {};
    std::string chunk = std::move(first->second);
    chunks_.erase(first);
    nextOffset_ += chunk.size();
    return chunk;
}

}  // namespace velmora::transfer
