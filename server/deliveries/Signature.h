// Signs requests as receivers of webhooks expect it (Standard Webhooks 1.0).
#pragma once

#include <string>
#include <vector>

#include "MR_types.h"

namespace Server {

/// The value of the header "webhook-signature": "v1,…" for each secret, parted by blanks.
std::string WebhookSignature(const std::vector<std::string>& secrets, const std::string& id,
                             Mirel::i64_t timestamp_sec, const std::string& body);

}  // namespace Server
