// Rights of tokens, and their digests.
#include "http/AccessTokens.h"

#include <openssl/evp.h>

#include <algorithm>
#include <iterator>
#include <new>

#include "MR_text.h"

namespace Server {

namespace {

constexpr std::string_view RoleNames[] = {"read", "post", "admin"};
constexpr std::string_view HashPrefix = "sha256:";
constexpr std::size_t DigestSize = 32;

bool IsPrefix(std::string_view pattern) {
    return pattern.ends_with('*');
}

// Whether whatever fits the one pattern fits the other.
bool Covers(std::string_view wide, std::string_view narrow) {
    if (!IsPrefix(wide)) return wide == narrow;
    if (IsPrefix(narrow)) narrow.remove_suffix(1);
    return narrow.starts_with(wide.substr(0, wide.size() - 1));
}

// The narrower of two patterns, where one covers the other; otherwise nothing.
std::optional<std::string> Common(const std::string& one, const std::string& other) {
    if (Covers(one, other)) return other;
    if (Covers(other, one)) return one;
    return std::nullopt;
}

}  // namespace

std::string_view RoleName(Role role) {
    return RoleNames[static_cast<std::size_t>(role)];
}

std::optional<Role> RoleFromName(std::string_view name) {
    const auto* found = std::find(std::begin(RoleNames), std::end(RoleNames), name);
    if (found == std::end(RoleNames)) return std::nullopt;
    return static_cast<Role>(found - std::begin(RoleNames));
}

bool PatternFits(std::string_view pattern, std::string_view name) {
    if (!IsPrefix(pattern)) return pattern == name;
    return name.starts_with(pattern.substr(0, pattern.size() - 1));
}

bool AccessToken::MayUse(std::string_view event_name) const {
    return Events.empty() || std::any_of(Events.begin(), Events.end(), [&](const std::string& pattern) {
               return PatternFits(pattern, event_name);
           });
}

bool AccessToken::SeesAllOf(const AccessToken& other) const {
    const auto sees = [&](const std::string& narrow) {
        return std::any_of(Events.begin(), Events.end(),
                           [&](const std::string& wide) { return Covers(wide, narrow); });
    };
    if (Events.empty()) return true;
    return !other.Events.empty() && std::all_of(other.Events.begin(), other.Events.end(), sees);
}

std::optional<std::vector<std::string>> AccessToken::Narrowed(const std::vector<std::string>& wanted,
                                                              std::string& refused) const {
    if (Events.empty()) return wanted;
    if (wanted.empty()) return Events;
    std::vector<std::string> left;
    for (const std::string& pattern : wanted) {
        const std::size_t before = left.size();
        for (const std::string& own : Events) {
            if (std::optional<std::string> common = Common(pattern, own)) left.push_back(std::move(*common));
        }
        if (left.size() > before) continue;
        refused = pattern;
        return std::nullopt;
    }
    return left;
}

std::string AccessToken::EventsText() const {
    std::string text;
    for (const std::string& pattern : Events) text += (text.empty() ? "" : ", ") + pattern;
    return text;
}

Caller CallerWithAllRights(const std::string& name) {
    auto token = std::make_shared<AccessToken>();
    token->Name = name;
    return token;
}

std::string TokenDigest(std::string_view token) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (EVP_Digest(token.data(), token.size(), digest, &size, EVP_sha256(), nullptr) != 1)
        throw std::bad_alloc();
    return {reinterpret_cast<const char*>(digest), size};
}

std::string HashText(std::string_view digest) {
    std::string text(HashPrefix);
    for (const char byte : digest) Mirel::AppendHex(text, static_cast<Mirel::byte_t>(byte));
    return text;
}

std::optional<std::string> DigestFromHash(std::string_view text) {
    if (!text.starts_with(HashPrefix)) return std::nullopt;
    text.remove_prefix(HashPrefix.size());
    if (text.size() != 2 * DigestSize) return std::nullopt;
    std::string digest;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = Mirel::HexValue(text[i]), low = Mirel::HexValue(text[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        digest += static_cast<char>(high << 4 | low);
    }
    return digest;
}

}  // namespace Server
