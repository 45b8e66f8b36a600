// The conversion of legacy events, per configuration guid. Threads: any; a conversion runs without the lock.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include "core/types/mutex.h"
#include "ingest/event/conversion/eventtransformer.h"

namespace velmora {

class Conversions {
public:
    // Replaces the table of a guid, in its file and for conversions that begin from now on. The file changes in one
    // step. A bad table throws `iaas_file_empty` or `iaas_file_invalid_format`, and a file that can't be written
    // `iaas_file_not_found_or_not_readable`; what was in force stays.
    void setMapping(const std::string& configGuid, const std::string& csv);

    // The converted event, "{}" if no rule matched. Throws what EventTransformer does.
    [[nodiscard]] std::string convert(const std::string& configGuid, std::string json, bool& matched);
    void convertFile(const std::string& configGuid, const std::string& inCsv, const std::string& outCsv);

private:
    std::shared_ptr<EventTransformer> transformer(const std::string& configGuid);

    Mutex mutex_;
    std::unordered_map<std::string, std::shared_ptr<EventTransformer>> transformers_ VELMORA_GUARDED_BY(mutex_);
};

}  // namespace velmora
