// What a stored event looks like to a reader, and texts that can be shown to one.
#pragma once

#include <optional>
#include <string>

#include "core/crypt/crypt.h"
#include "core/queue/queuereader.h"

namespace velmora::tool {

enum class RecordForm {
    plain,           // a JSON object, as it lies on disk
    deciphered,      // a JSON object under the passphrase
    undecipherable,  // not under this passphrase
    enciphered,      // may be; no passphrase was given
    other,           // neither an event nor its cipher text
};

struct InspectedRecord {
    QueueReader::Record place;
    RecordForm form;
    std::string json;  // of an event; else empty
};

class RecordView {
public:
    // Without a passphrase nothing is deciphered.
    explicit RecordView(const std::optional<std::string>& passphrase);

    [[nodiscard]] InspectedRecord look(const QueueReader::Record& place, const std::string& bytes) const;

private:
    std::optional<Crypt> crypt_;
};

// Text of any origin, fit for a terminal and for JSON: U+FFFD stands for control characters and for bytes that are no
// UTF-8.
[[nodiscard]] std::string printable(const std::string& text);

}  // namespace velmora::tool
