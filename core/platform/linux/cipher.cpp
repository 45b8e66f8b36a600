#include "core/platform/cipher.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include <utility>

namespace velmora::platform {
namespace {

// OpenSSL takes itself down at process exit, and stored events are enciphered until the last instance is destroyed
// there. Initialised when the library is loaded, it outlives everything that is created later.
const int initialised = OPENSSL_init_crypto(0, nullptr);

// The host decides which providers its own context has, and may have none with these algorithms. Ours has the default
// one, and is never freed: it serves to the end of the process.
OSSL_LIB_CTX* libraryContext() {
    static OSSL_LIB_CTX* const context = OSSL_LIB_CTX_new();
    return context;
}

// The host may use OpenSSL on the same thread: errors raised here do not stay in the thread's queue. failure() is for a
// step that has just raised one.
class ErrorScope {
public:
    ErrorScope() { ERR_set_mark(); }
    ~ErrorScope() { ERR_pop_to_mark(); }
    ErrorScope(const ErrorScope&) = delete;
    ErrorScope& operator=(const ErrorScope&) = delete;

    CipherResult failure(CipherStep step) const { return {step, static_cast<uint32_t>(ERR_peek_last_error())}; }
};

// Fetched once: looking an algorithm up costs more than enciphering an event.
const EVP_CIPHER* aesCbc() {
    static EVP_CIPHER* const cipher = EVP_CIPHER_fetch(libraryContext(), "AES-256-CBC", nullptr);
    return cipher;
}

const EVP_MD* sha256() {
    static EVP_MD* const digest = EVP_MD_fetch(libraryContext(), "SHA256", nullptr);
    return digest;
}

// A context for each thread. A plain pointer, so that it can be used, and if need be made anew, while the process's
// first thread destroys its static objects after its thread-local ones.
thread_local EVP_CIPHER_CTX* threadContext = nullptr;

struct ThreadContextOwner {
    ~ThreadContextOwner() { EVP_CIPHER_CTX_free(std::exchange(threadContext, nullptr)); }
};

EVP_CIPHER_CTX* cipherContext() {
    if (threadContext == nullptr) {
        threadContext = EVP_CIPHER_CTX_new();
        static thread_local ThreadContextOwner owner;
        static_cast<void>(owner);
    }
    return threadContext;
}

enum class Direction : int { decrypt = 0, encrypt = 1 };

const unsigned char* bytesOf(const std::string& text) { return reinterpret_cast<const unsigned char*>(text.data()); }

CipherResult crypt(Direction direction, const std::string& key, const InitialisationVector& iv, const std::string& in,
                   std::string& out) {
    const CipherStep step = direction == Direction::encrypt ? CipherStep::encrypt : CipherStep::decrypt;
    const ErrorScope errors;
    if (aesCbc() == nullptr) return {CipherStep::openProvider};
    EVP_CIPHER_CTX* const context = cipherContext();
    if (context == nullptr) return errors.failure(CipherStep::allocateMemory);
    if (key.size() != static_cast<size_t>(EVP_CIPHER_get_key_length(aesCbc()))) return {CipherStep::generateKey};
    if (EVP_CipherInit_ex2(context, aesCbc(), bytesOf(key), iv.data(), static_cast<int>(direction), nullptr) != 1) {
        return errors.failure(CipherStep::generateKey);
    }
    if (in.size() > INT32_MAX - iv.size()) return {step};
    out.resize(in.size() + iv.size());
    auto* const bytes = reinterpret_cast<unsigned char*>(out.data());
    int written = 0;
    int last = 0;
    if (EVP_CipherUpdate(context, bytes, &written, bytesOf(in), static_cast<int>(in.size())) != 1 ||
        EVP_CipherFinal_ex(context, bytes + written, &last) != 1) {
        return errors.failure(step);
    }
    out.resize(static_cast<size_t>(written + last));
    return {};
}

}  // namespace

CipherResult hashSha256(const std::string& data, std::string& digest) {
    const ErrorScope errors;
    if (initialised != 1 || sha256() == nullptr) return {CipherStep::openProvider};
    std::string result(static_cast<size_t>(EVP_MD_get_size(sha256())), '\0');
    if (EVP_Digest(data.data(), data.size(), reinterpret_cast<unsigned char*>(result.data()), nullptr, sha256(),
                   nullptr) != 1) {
        return errors.failure(CipherStep::hashData);
    }
    digest = std::move(result);
    return {};
}

CipherResult encryptAesCbc(const std::string& key, const InitialisationVector& iv, const std::string& plain,
                           std::string& cipher) {
    return crypt(Direction::encrypt, key, iv, plain, cipher);
}

CipherResult decryptAesCbc(const std::string& key, const InitialisationVector& iv, const std::string& cipher,
                           std::string& plain) {
    return crypt(Direction::decrypt, key, iv, cipher, plain);
}

}  // namespace velmora::platform
