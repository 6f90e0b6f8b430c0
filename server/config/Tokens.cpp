// Reads, checks and prints access tokens.
#include "config/Tokens.h"

#include <algorithm>
#include <filesystem>
#include <utility>

#include "MR_util.h"
#include "config/Secrets.h"

namespace Server {

namespace {

constexpr const char* Key = "AccessTokens";
constexpr std::size_t ShortestHashed = 20;
constexpr const char* TokenForm = "must hold one token of visible ASCII characters without blanks";

bool IsToken(const std::string& text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return c > 0x20 && c < 0x7f; });
}

// Reads one entry of the list.
class TokenEntry {
  public:
    TokenEntry(const Velmora::PListDict& dict, const std::string& base, std::vector<Fault>& faults)
        : m_Shape(dict, base, faults) {}

    AccessToken Read(const std::string& directory);

  private:
    void Secret(const std::string& directory);
    void Take(const char* key, const std::string& token);
    void Hash(const std::string& text);
    void Rights();

    Shape m_Shape;
    AccessToken m_Token;
};

AccessToken TokenEntry::Read(const std::string& directory) {
    m_Token.Name = m_Shape.NonEmptyText("Name", Need::Required).value_or("");
    Secret(directory);
    Rights();
    m_Shape.NothingElse();
    return std::move(m_Token);
}

void TokenEntry::Secret(const std::string& directory) {
    const auto token = m_Shape.NonEmptyText("Token");
    const auto file = m_Shape.NonEmptyText("TokenFile");
    const auto hash = m_Shape.NonEmptyText("Hash");
    if (token.has_value() + file.has_value() + hash.has_value() != 1)
        m_Shape.Blame("", R"(must have one of "Token", "TokenFile" and "Hash")");
    if (token) Take("Token", *token);
    if (file) {
        m_Token.File = (std::filesystem::path(directory) / *file).lexically_normal().string();
        Take("TokenFile", ReadTokenFile(m_Shape, "TokenFile", m_Token.File));
    }
    if (hash) Hash(*hash);
    if (token) CheckTokenText(m_Shape, "Token", *token);
}

void TokenEntry::Take(const char* key, const std::string& token) {
    m_Token.Source = key;
    m_Token.Digest = TokenDigest(token);
}

void TokenEntry::Hash(const std::string& text) {
    m_Token.Source = "Hash";
    if (const auto digest = DigestFromHash(text)) {
        m_Token.Digest = *digest;
    } else {
        m_Shape.Blame("Hash",
                      text == HiddenSecret
                          ? NeedsSecret
                          : "must be what velmora-server --hash-token prints (sha256: and 64 digits)");
    }
}

void TokenEntry::Rights() {
    if (const auto text = m_Shape.Text("Role", Need::Required)) {
        const std::optional<Role> role = RoleFromName(*text);
        if (!role) m_Shape.Blame("Role", R"(must be "read", "post" or "admin")");
        m_Token.Role = role.value_or(Role::Read);
    }
    m_Token.Events = m_Shape.Texts("Events");
    if (!m_Token.Events.empty() && m_Token.Role == Role::Admin)
        m_Shape.Blame("Events", "cannot restrict the role \"admin\", which may register what it likes");
}

// Which of the tokens before has this one's name or secret.
void CheckUnique(const std::vector<AccessToken>& before, const AccessToken& token, const std::string& plain,
                 const std::string& base, std::vector<Fault>& faults) {
    const auto fault = [&](const char* key, const std::string& what) {
        faults.push_back({PointerTo(base, key), what});
    };
    for (const AccessToken& other : before) {
        if (other.Name == token.Name && !token.Name.empty()) fault("Name", "stands there twice");
        if (other.Digest == token.Digest && !token.Digest.empty())
            fault(token.Source.c_str(), "is the same token as that of \"" + other.Name + "\"");
    }
    if (!plain.empty() && token.Digest == TokenDigest(plain))
        fault(token.Source.c_str(), "is the same token as \"AccessToken\", which has all rights");
}

}  // namespace

void CheckTokenText(Shape& shape, const std::string& key, const std::string& token) {
    if (!IsToken(token)) {
        shape.Blame(key, TokenForm);
    } else if (token == HiddenSecret) {
        shape.Blame(key, NeedsSecret);
    }
}

std::string ReadTokenFile(Shape& shape, const std::string& key, const std::string& path) {
    std::string text;
    const Mirel::Result_t read = Mirel::ReadFileIntoString(path, text, LargestSecretFile);
    if (read.Failure()) {
        shape.Blame(key, std::string("cannot be read: ") + read.Message());
        return std::string();
    }
    std::string token = text.substr(0, text.find_last_not_of("\r\n") + 1);
    CheckTokenText(shape, key, token);
    return token;
}

std::vector<AccessToken> ReadAccessTokens(Shape& shape, const std::string& directory,
                                          const std::string& plain, std::vector<Fault>& faults) {
    std::vector<AccessToken> tokens;
    const Velmora::PListArray* list = shape.Array(Key);
    if (list == nullptr) return tokens;
    for (const Velmora::PListItem& item : *list) {
        const std::string base = PointerTo(PointerTo("", Key), tokens.size());
        const Velmora::PListDict* dict = AsDict(&item);
        if (dict == nullptr) faults.push_back({base, "must be an object"});
        AccessToken token = dict == nullptr ? AccessToken() : TokenEntry(*dict, base, faults).Read(directory);
        CheckUnique(tokens, token, plain, base, faults);
        tokens.push_back(std::move(token));
    }
    return tokens;
}

Velmora::PListArray AccessTokensInForce(const std::vector<AccessToken>& tokens) {
    Velmora::PListArray shown;
    for (const AccessToken& token : tokens) {
        Velmora::PListDict entry;
        entry.SetValue("Name", token.Name);
        entry.SetValue(token.Source, token.File.empty() ? HiddenSecret : token.File);
        entry.SetValue("Role", std::string(RoleName(token.Role)));
        Velmora::PListArray events;
        for (const std::string& pattern : token.Events) events.Append(Velmora::PListData(pattern));
        entry.SetItem("Events", events);
        shown.Append(entry);
    }
    return shown;
}

std::optional<std::string> HashOfToken(const std::string& token, std::string& fault) {
    if (!IsToken(token)) {
        fault = std::string("standard input ") + TokenForm;
    } else if (token.size() < ShortestHashed) {
        fault = "a token of fewer than " + std::to_string(ShortestHashed) +
                " characters can be guessed from its hash: take a long random one (openssl rand -hex 32)";
    } else {
        return HashText(TokenDigest(token));
    }
    return std::nullopt;
}

}  // namespace Server
