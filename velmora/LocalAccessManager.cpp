#include "LocalAccessManager.h"

#include <openssl/crypto.h>

#include <array>
#include <string>

#include "MR_util.h"

namespace LocalAccessManager {

namespace {

constexpr std::string_view SCHEME = "Velmora-Self ";
constexpr std::size_t SECRET_BYTES = 32;

std::string MakeCredential() {
    constexpr std::string_view digits = "0123456789abcdef";
    std::array<Mirel::byte_t, SECRET_BYTES> secret;
    Mirel::GenRandomBytes(secret.data(), secret.size());
    std::string credential(SCHEME);
    for (const Mirel::byte_t byte : secret) {
        credential += digits[byte >> 4];
        credential += digits[byte & 0x0f];
    }
    OPENSSL_cleanse(secret.data(), secret.size());
    return credential;
}

// Leaked, so that threads that outlive main may still call.
const std::string& Credential() {
    static const std::string& credential = *new std::string(MakeCredential());
    return credential;
}

}  // namespace

Mirel::Result_t SelfAuthRestCallback::Call(Velmora::BasicRestEntryCall& call) {
    call.RequestHeaders[Velmora::Strings::Authorization] = Credential();
    return Mirel::RESULT_OK;
}

bool IsSelfAuthorized(std::string_view authorization) {
    const std::string& credential = Credential();
    // The length is no secret; the rest must not be found out byte by byte.
    return authorization.size() == credential.size() &&
           CRYPTO_memcmp(authorization.data(), credential.data(), credential.size()) == 0;
}

}  // namespace LocalAccessManager
