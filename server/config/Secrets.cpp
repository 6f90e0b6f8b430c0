// Takes the credentials out of URLs.
#include "config/Secrets.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace Server {

namespace {

// Where user and password stand, up to the "@"; nothing where there are none.
std::string_view Credentials(std::string_view url) {
    constexpr std::string_view Before = "://";
    const std::size_t scheme = url.find(Before);
    if (scheme == url.npos || url.find_first_of("/?#") < scheme) return {};  // a path
    const std::size_t begin = scheme + Before.size();
    const std::string_view authority =
        url.substr(begin, std::min(url.find_first_of("/?#", begin), url.size()) - begin);
    const std::size_t at = authority.rfind('@');
    return at == authority.npos ? std::string_view() : authority.substr(0, at);
}

}  // namespace

std::string WithoutCredentials(const std::string& url) {
    const std::string_view credentials = Credentials(url);
    if (credentials.empty()) return url;
    std::string shown = url;
    shown.replace(static_cast<std::size_t>(credentials.data() - url.data()), credentials.size(),
                  HiddenSecret);
    return shown;
}

bool LacksCredentials(const std::string& url) {
    return Credentials(url) == HiddenSecret;
}

}  // namespace Server
