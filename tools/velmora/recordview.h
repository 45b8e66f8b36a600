// What a stored event looks like to a reader.
#pragma once

#include <optional>
#include <string>

#include "core/crypt/crypt.h"
#include "tools/velmora/inspection.h"

namespace velmora::tool {

class RecordView {
public:
    // Without a passphrase nothing is deciphered.
    explicit RecordView(const std::optional<std::string>& passphrase);

    [[nodiscard]] InspectedRecord look(const QueueReader::Record& place, const std::string& bytes) const;

private:
    std::optional<Crypt> crypt_;
};

}  // namespace velmora::tool
