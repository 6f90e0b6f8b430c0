#include "deliveries/Signature.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

namespace Server {

namespace {

std::string Sign(const std::string& secret, const std::string& text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    HMAC(EVP_sha256(), secret.data(), static_cast<int>(secret.size()),
         reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest, &size);
    unsigned char base64[EVP_MAX_MD_SIZE * 2];
    const int length = EVP_EncodeBlock(base64, digest, static_cast<int>(size));
    return {reinterpret_cast<const char*>(base64), static_cast<std::size_t>(length)};
}

}  // namespace

std::string WebhookSignature(const std::vector<std::string>& secrets, const std::string& id,
                             Mirel::i64_t timestamp_sec, const std::string& body) {
    const std::string text = id + '.' + std::to_string(timestamp_sec) + '.' + body;
    std::string value;
    for (const std::string& secret : secrets) value += (value.empty() ? "v1," : " v1,") + Sign(secret, text);
    return value;
}

}  // namespace Server
