// A hash that nobody outside can steer.
#include "plist/PListIndex.h"

#include <bit>
#include <cstring>

#include "MR_util.h"

namespace Velmora {

namespace {

struct Secret {
    Secret() {
        Mirel::byte_t bytes[16];
        Mirel::GenRandomBytes(bytes, sizeof(bytes));
        std::memcpy(&Low, bytes, 8);
        std::memcpy(&High, bytes + 8, 8);
    }
    ui64_t Low;
    ui64_t High;
};

// SipHash: short inputs at a speed close to that of hashes which an attacker can steer.
class SipHash {
  public:
    explicit SipHash(const Secret& secret)
        : m_V{secret.Low ^ 0x736f6d6570736575, secret.High ^ 0x646f72616e646f6d,
              secret.Low ^ 0x6c7967656e657261, secret.High ^ 0x7465646279746573} {}

    void Add(ui64_t word) {
        m_V[3] ^= word;
        Round();
        m_V[0] ^= word;
    }

    ui64_t Finish() {
        m_V[2] ^= 0xFF;
        for (int i = 0; i < 3; ++i) Round();
        return m_V[0] ^ m_V[1] ^ m_V[2] ^ m_V[3];
    }

  private:
    void Round() {
        m_V[0] += m_V[1], m_V[2] += m_V[3];
        m_V[1] = std::rotl(m_V[1], 13) ^ m_V[0], m_V[3] = std::rotl(m_V[3], 16) ^ m_V[2];
        m_V[0] = std::rotl(m_V[0], 32);
        m_V[2] += m_V[1], m_V[0] += m_V[3];
        m_V[1] = std::rotl(m_V[1], 17) ^ m_V[2], m_V[3] = std::rotl(m_V[3], 21) ^ m_V[0];
        m_V[2] = std::rotl(m_V[2], 32);
    }

    ui64_t m_V[4];
};

}  // namespace

std::size_t HashKey(std::string_view key) noexcept {
    static const Secret secret;
    SipHash hash(secret);
    std::size_t at = 0;
    for (; at + 8 <= key.size(); at += 8) {
        ui64_t word;
        std::memcpy(&word, key.data() + at, 8);
        hash.Add(word);
    }
    ui64_t tail = static_cast<ui64_t>(key.size()) << 56;
    if (at < key.size()) std::memcpy(&tail, key.data() + at, key.size() - at);
    hash.Add(tail);
    return hash.Finish();
}

}  // namespace Velmora
