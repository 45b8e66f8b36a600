// The cipher of stored events: AES-256-CBC under the SHA-256 of a passphrase, with one fixed initialisation vector. It
// keeps event text from lying readable on disk and is no protocol: the enciphered form never leaves the machine. Equal
// events give equal records.
#pragma once

#include <string>

namespace velmora {

// No mutable state after construction; any thread.
class Crypt {
public:
    explicit Crypt(const std::string& passphrase);

    // Length a multiple of 16. Failures are logged on channel "crypt" and give an empty string; a wrong passphrase
    // mostly does.
    [[nodiscard]] std::string encrypt(const std::string& plain) const;
    [[nodiscard]] std::string decrypt(const std::string& cipher) const;

private:
    std::string key_;
};

}  // namespace velmora
