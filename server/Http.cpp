#include "Http.h"

#if defined(__clang__)  // the library adds to null pointers where it asks whether there is room
#pragma clang attribute push(__attribute__((no_sanitize("pointer-overflow"))), apply_to = function)
#endif
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#if defined(__clang__)
#pragma clang attribute pop
#endif

namespace Server {

namespace {

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

using JsonWriter = rapidjson::Writer<rapidjson::StringBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>,
                                     rapidjson::CrtAllocator, rapidjson::kWriteValidateEncodingFlag>;

bool write_problem(rapidjson::StringBuffer& json, Status_t status, const std::string& detail) {
    JsonWriter writer(json);
    const char* const title = Velmora::StatusToString(status);
    writer.StartObject();
    writer.Key("type");
    writer.String("about:blank");
    writer.Key("title");
    writer.String(title);
    writer.Key("status");
    writer.Int(status);
    writer.Key("detail");
    const bool valid = writer.String(detail.data(), static_cast<rapidjson::SizeType>(detail.size()));
    writer.EndObject();
    return valid;
}

}  // namespace

std::optional<std::string> PercentDecode(std::string_view text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        const int high = i + 2 < text.size() ? hex_value(text[i + 1]) : -1;
        const int low = i + 2 < text.size() ? hex_value(text[i + 2]) : -1;
        if (high < 0 || low < 0) return std::nullopt;
        decoded += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return decoded;
}

HttpResponse Problem(Status_t status, const std::string& detail) {
    rapidjson::StringBuffer json;
    if (!write_problem(json, status, detail)) {
        // The detail quotes bytes from outside that are no UTF-8.
        std::string ascii = detail;
        for (char& c : ascii) c = static_cast<unsigned char>(c) < 0x80 ? c : '?';
        json.Clear();
        write_problem(json, status, ascii);
    }
    HttpResponse response;
    response.Status = status;
    response.ContentType = "application/problem+json";
    response.Body.assign(json.GetString(), json.GetSize());
    return response;
}

}  // namespace Server
