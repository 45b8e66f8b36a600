#include "core/crypt/crypt.h"

#include <new>
#include <utility>

#include "core/platform/cipher.h"
#include "core/types/logger.h"

namespace velmora {
namespace {

using platform::CipherResult;
using platform::CipherStep;

constexpr platform::InitialisationVector kInitialisationVector{0x5A, 0xC3, 0x17, 0x88, 0x2E, 0x90, 0xB4, 0x61,
                                                               0xF7, 0x0D, 0x3C, 0xA9, 0x46, 0xE2, 0x7B, 0x1F};

const char* operationOf(CipherStep step) {
    switch (step) {
        case CipherStep::none:
        case CipherStep::allocateMemory:
        case CipherStep::checkBlockLength:
            break;
        case CipherStep::openProvider:
            return "BCryptOpenAlgorithmProvider";
        case CipherStep::getProperty:
            return "BCryptGetProperty";
        case CipherStep::setProperty:
            return "BCryptSetProperty";
        case CipherStep::generateKey:
            return "BCryptGenerateSymmetricKey";
        case CipherStep::encrypt:
            return "BCryptEncrypt";
        case CipherStep::decrypt:
            return "BCryptDecrypt";
        case CipherStep::destroyKey:
            return "BCryptDestroyKey";
        case CipherStep::createHash:
            return "BCryptCreateHash";
        case CipherStep::hashData:
            return "BCryptHashData";
        case CipherStep::finishHash:
            return "BCryptFinishHash";
    }
    return "";
}

void logFailure(const CipherResult& result, const char* function) {
    if (result.failedStep == CipherStep::allocateMemory) {
        VELMORA_LOGF_AT(error, "crypt", function, "**** memory allocation failed");
    } else if (result.failedStep == CipherStep::checkBlockLength) {
        VELMORA_LOGF_AT(error, "crypt", function, "**** block length is longer than the provided IV length");
    } else {
        VELMORA_LOGF_AT(error, "crypt", function, "**** Error 0x%x returned by %s", result.code,
                        operationOf(result.failedStep));
    }
}

// What an operation lacks in memory is a failed step like any other.
template <typename Operation>
CipherResult run(Operation operation) {
    try {
        return operation();
    } catch (const std::bad_alloc&) {
        return {CipherStep::allocateMemory};
    }
}

// Whether it worked.
template <typename Operation>
bool succeeds(Operation operation, const char* function) {
    const CipherResult result = run(operation);
    // A key object that could not be freed spoils nothing that has been computed.
    const bool usable = result.failedStep == CipherStep::none || result.failedStep == CipherStep::destroyKey;
    if (result.failedStep != CipherStep::none) logFailure(result, function);
    return usable;
}

void hash(std::string& value) {
    std::string digest;
    const auto operation = [&] { return platform::hashSha256(value, digest); };
    if (succeeds(operation, __PRETTY_FUNCTION__)) value = std::move(digest);
}

}  // namespace

Crypt::Crypt(const std::string& passphrase) : key_(passphrase) { hash(key_); }

std::string Crypt::encrypt(const std::string& plain) const {
    std::string cipher;
    const auto operation = [&] { return platform::encryptAesCbc(key_, kInitialisationVector, plain, cipher); };
    if (!succeeds(operation, __PRETTY_FUNCTION__)) return {};
    return cipher;
}

std::string Crypt::decrypt(const std::string& cipher) const {
    std::string plain;
    const auto operation = [&] { return platform::decryptAesCbc(key_, kInitialisationVector, cipher, plain); };
    if (!succeeds(operation, __PRETTY_FUNCTION__)) return {};
    return plain;
}

}  // namespace velmora
