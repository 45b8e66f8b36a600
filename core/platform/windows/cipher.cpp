#include "core/platform/cipher.h"

#include <windows.h>
// After windows.h.
#include <bcrypt.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace velmora::platform {
namespace {

struct StepFailed {
    CipherResult result;
};

void require(NTSTATUS status, CipherStep step) {
    if (!BCRYPT_SUCCESS(status)) throw StepFailed{{step, static_cast<uint32_t>(status)}};
}

PUCHAR bytesOf(const std::string& text) { return reinterpret_cast<PUCHAR>(const_cast<char*>(text.data())); }

ULONG sizeOf(const std::string& text, CipherStep step) {
    if (text.size() > MAXLONG) throw StepFailed{{step, static_cast<uint32_t>(STATUS_INVALID_PARAMETER)}};
    return static_cast<ULONG>(text.size());
}

class Provider {
public:
    explicit Provider(const wchar_t* algorithm) {
        require(::BCryptOpenAlgorithmProvider(&handle_, algorithm, nullptr, 0), CipherStep::openProvider);
    }
    ~Provider() { ::BCryptCloseAlgorithmProvider(handle_, 0); }
    Provider(const Provider&) = delete;
    Provider& operator=(const Provider&) = delete;

    BCRYPT_ALG_HANDLE get() const { return handle_; }

    ULONG property(const wchar_t* name) const {
        ULONG value = 0;
        ULONG size = 0;
        require(::BCryptGetProperty(handle_, name, reinterpret_cast<PUCHAR>(&value), sizeof value, &size, 0),
                CipherStep::getProperty);
        return value;
    }

private:
    BCRYPT_ALG_HANDLE handle_ = nullptr;
};

class Key {
public:
    Key(const Provider& provider, const std::string& bytes, std::vector<UCHAR>& object) {
        require(::BCryptGenerateSymmetricKey(provider.get(), &handle_, object.data(), static_cast<ULONG>(object.size()),
                                             bytesOf(bytes), sizeOf(bytes, CipherStep::generateKey), 0),
                CipherStep::generateKey);
    }
    ~Key() { destroy(); }
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;

    BCRYPT_KEY_HANDLE get() const { return handle_; }
    NTSTATUS destroy() { return handle_ == nullptr ? 0 : ::BCryptDestroyKey(std::exchange(handle_, nullptr)); }

private:
    BCRYPT_KEY_HANDLE handle_ = nullptr;
};

class Hash {
public:
    Hash(const Provider& provider, std::vector<UCHAR>& object) {
        require(::BCryptCreateHash(provider.get(), &handle_, object.data(), static_cast<ULONG>(object.size()), nullptr,
                                   0, 0),
                CipherStep::createHash);
    }
    ~Hash() { ::BCryptDestroyHash(handle_); }
    Hash(const Hash&) = delete;
    Hash& operator=(const Hash&) = delete;

    BCRYPT_HASH_HANDLE get() const { return handle_; }

private:
    BCRYPT_HASH_HANDLE handle_ = nullptr;
};

template <typename Operation>
CipherResult run(Operation operation) {
    try {
        return operation();
    } catch (const StepFailed& failure) {
        return failure.result;
    }
}

using CryptFunction = decltype(&::BCryptEncrypt);

struct Pass {
    CryptFunction function;
    CipherStep step;
    bool reportsDestroyedKey;
};

std::vector<UCHAR> copyOf(const InitialisationVector& iv, ULONG blockLength) {
    if (blockLength > iv.size()) throw StepFailed{{CipherStep::checkBlockLength, 0}};
    return {iv.begin(), iv.begin() + blockLength};
}

CipherResult crypt(const Pass& pass, const std::string& keyBytes, const InitialisationVector& iv, const std::string& in,
                   std::string& out) {
    const Provider provider(BCRYPT_AES_ALGORITHM);
    std::vector<UCHAR> object(provider.property(BCRYPT_OBJECT_LENGTH));
    std::vector<UCHAR> chain = copyOf(iv, provider.property(BCRYPT_BLOCK_LENGTH));
    const auto chainSize = static_cast<ULONG>(chain.size());
    wchar_t mode[] = BCRYPT_CHAIN_MODE_CBC;
    require(::BCryptSetProperty(provider.get(), BCRYPT_CHAINING_MODE, reinterpret_cast<PUCHAR>(mode), sizeof mode, 0),
            CipherStep::setProperty);
    Key key(provider, keyBytes, object);
    const ULONG inSize = sizeOf(in, pass.step);
    ULONG size = 0;
    require(pass.function(key.get(), bytesOf(in), inSize, nullptr, chain.data(), chainSize, nullptr, 0, &size,
                          BCRYPT_BLOCK_PADDING),
            pass.step);
    out.resize(size);
    require(pass.function(key.get(), bytesOf(in), inSize, nullptr, chain.data(), chainSize,
                          reinterpret_cast<PUCHAR>(out.data()), size, &size, BCRYPT_BLOCK_PADDING),
            pass.step);
    out.resize(size);
    if (pass.reportsDestroyedKey) require(key.destroy(), CipherStep::destroyKey);
    return {};
}

}  // namespace

CipherResult hashSha256(const std::string& data, std::string& digest) {
    return run([&]() -> CipherResult {
        const Provider provider(BCRYPT_SHA256_ALGORITHM);
        std::vector<UCHAR> object(provider.property(BCRYPT_OBJECT_LENGTH));
        std::string result(provider.property(BCRYPT_HASH_LENGTH), '\0');
        const Hash hash(provider, object);
        require(::BCryptHashData(hash.get(), bytesOf(data), sizeOf(data, CipherStep::hashData), 0),
                CipherStep::hashData);
        require(::BCryptFinishHash(hash.get(), bytesOf(result), static_cast<ULONG>(result.size()), 0),
                CipherStep::finishHash);
        digest = std::move(result);
        return {};
    });
}

CipherResult encryptAesCbc(const std::string& key, const InitialisationVector& iv, const std::string& plain,
                           std::string& cipher) {
    return run([&] { return crypt({&::BCryptEncrypt, CipherStep::encrypt, true}, key, iv, plain, cipher); });
}

CipherResult decryptAesCbc(const std::string& key, const InitialisationVector& iv, const std::string& cipher,
                           std::string& plain) {
    return run([&] { return crypt({&::BCryptDecrypt, CipherStep::decrypt, false}, key, iv, cipher, plain); });
}

}  // namespace velmora::platform
