// Access tokens: who calls, and what for.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Server {

/// What the holder of a token may do; each may do what those before it may.
enum class Role {
    Read,   // see what there is and what happens
    Post,   // post events
    Admin,  // change everything
};

/// "read", "post" or "admin".
std::string_view RoleName(Role role);
std::optional<Role> RoleFromName(std::string_view name);

/// Whether a pattern stands for a name: the name itself or, where the pattern ends in "*", a beginning of it.
bool PatternFits(std::string_view pattern, std::string_view name);

/// One token. Of the token itself only a digest is kept.
struct AccessToken {
    std::string Name;  // for the log; empty: nobody in particular
    std::string Digest;
    Server::Role Role = Server::Role::Admin;
    std::vector<std::string> Events;  // names or patterns of the only ones that it is for; empty: all
    std::string Source;               // the configuration's key that gave it
    std::string File;                 // where the token was read; empty: nowhere

    /// Set once it lets nobody in any more, or for less; null where that is not kept.
    std::shared_ptr<std::atomic<bool>> Ended;

    bool MayUse(std::string_view event_name) const;
    /// Whether it lets see whatever the other, of the same holder, does.
    bool SeesAllOf(const AccessToken& other) const;
    /// What is left of the wanted patterns (none: all) for this token: the narrower of two that overlap.
    /// Nothing where one of them has nothing in common with the token's, which `refused` then is.
    std::optional<std::vector<std::string>> Narrowed(const std::vector<std::string>& wanted,
                                                     std::string& refused) const;
    /// "order.*, stock": for people.
    std::string EventsText() const;
};

/// Who calls. Null: nobody has been found out.
using Caller = std::shared_ptr<const AccessToken>;

/// A caller with all rights.
Caller CallerWithAllRights(const std::string& name);

/// SHA-256 of a token, as bytes.
std::string TokenDigest(std::string_view token);

/// "sha256:" and the digest in hexadecimal digits, as the configuration has it; and back, nothing for any
/// other text.
std::string HashText(std::string_view digest);
std::optional<std::string> DigestFromHash(std::string_view text);

}  // namespace Server
