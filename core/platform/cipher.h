// SHA-256, and AES-256 in CBC mode with PKCS#7 padding. The same bytes on every system.
//
// Any thread. Nothing is logged: a failure names the step that failed and the system's code for it, 0 if it has none.
// Throws std::bad_alloc.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace velmora::platform {

using InitialisationVector = std::array<uint8_t, 16>;

enum class CipherStep {
    none,
    openProvider,
    getProperty,
    allocateMemory,
    checkBlockLength,
    setProperty,
    generateKey,
    encrypt,
    decrypt,
    destroyKey,
    createHash,
    hashData,
    finishHash,
};

struct CipherResult {
    CipherStep failedStep = CipherStep::none;
    uint32_t code = 0;
};

// `digest` receives 32 bytes.
[[nodiscard]] CipherResult hashSha256(const std::string& data, std::string& digest);

// The key has 32 bytes. On failure the contents of the output are unspecified.
[[nodiscard]] CipherResult encryptAesCbc(const std::string& key, const InitialisationVector& iv,
                                         const std::string& plain, std::string& cipher);
[[nodiscard]] CipherResult decryptAesCbc(const std::string& key, const InitialisationVector& iv,
                                         const std::string& cipher, std::string& plain);

}  // namespace velmora::platform
