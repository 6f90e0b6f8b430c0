// What the resources share: bodies, parameters, errors, places in the address.
#include "rest/Rest.h"

#include <openssl/evp.h>

#include <algorithm>
#include <charconv>
#include <cstdio>

namespace Server {

namespace {

constexpr const char* ProblemType = "application/problem+json";
constexpr std::size_t MostErrors = 100;  // listed in one answer

HttpResponse WithErrors(Status_t status, const std::string& detail, const Velmora::PListArray& errors) {
    Velmora::PListDict problem;
    problem.SetValue("type", "about:blank");
    problem.SetValue("title", Velmora::StatusToString(status));
    problem.SetValue("status", static_cast<int>(status));
    problem.SetValue("detail", detail);
    problem.SetItem("errors", errors);
    HttpResponse response = Json(status, problem);
    response.ContentType = ProblemType;
    return response;
}

Velmora::PListDict ErrorEntry(const char* place, const std::string& where, const std::string& what) {
    Velmora::PListDict entry;
    entry.SetValue(place, where);
    entry.SetValue("detail", what);
    return entry;
}

bool IsUnreserved(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_' || c == '~';
}

bool IsPlainInJson(char c) {
    return c >= 0x20 && c < 0x7f && c != '"' && c != '\\';
}

std::string StrongETag(const std::string& body) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (EVP_Digest(body.data(), body.size(), digest, &size, EVP_sha256(), nullptr) != 1) return std::string();
    std::string tag = "\"";
    for (unsigned int i = 0; i < std::min(size, 16u); ++i) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned>(digest[i]));
        tag += digits;
    }
    return tag + '"';
}

// If-None-Match compares weakly (RFC 9110, 13.1.2), so a "W/" in front of the tag does not matter; the quotes
// make the tag's text unmistakable in the list.
bool NamesTag(std::string_view list, std::string_view tag) {
    return list == "*" || list.find(tag) != std::string_view::npos;
}

}  // namespace

const std::string* FindParameter(const QueryParameters& query, std::string_view name) {
    for (const auto& [key, value] : query) {
        if (key == name) return &value;
    }
    return nullptr;
}

HttpResponse Json(Status_t status, const Velmora::PListDict& document) {
    HttpResponse response;
    response.Status = status;
    response.ContentType = Velmora::Strings::MIME_json;
    if (document.EncodeJSON(response.Body).Failure()) {
        return Problem(Velmora::STATUS_500_SERVER_ERROR, "The answer could not be encoded.");
    }
    return response;
}

HttpResponse Created(const std::string& location, const Velmora::PListDict& document) {
    HttpResponse response = Json(Velmora::STATUS_201_CREATED, document);
    response.Headers.emplace_back("Location", location);
    return response;
}

HttpResponse NoContent() {
    HttpResponse response;
    response.Status = Velmora::STATUS_204_NO_CONTENT;
    return response;
}

HttpResponse Removed(bool found, const std::string& otherwise) {
    return found ? NoContent() : Problem(Velmora::STATUS_404_NOT_FOUND, otherwise);
}

HttpResponse Problem(Status_t status, const std::string& detail, const std::vector<Fault>& faults) {
    Velmora::PListArray errors;
    const std::size_t shown = std::min(faults.size(), MostErrors);
    for (std::size_t i = 0; i < shown; ++i) {
        errors.Append(ErrorEntry("pointer", faults[i].Pointer, faults[i].What));
    }
    const std::size_t left = faults.size() - shown;
    return WithErrors(
        status, left == 0 ? detail : detail + " " + std::to_string(left) + " more are not listed.", errors);
}

HttpResponse BadParameter(const std::string& name, const std::string& what) {
    Velmora::PListArray errors;
    errors.Append(ErrorEntry("parameter", name, what));
    return WithErrors(Velmora::STATUS_400_BAD_REQ, "The query parameter \"" + name + "\" " + what + ".",
                      errors);
}

HttpResponse WithETag(const HttpRequest& request, HttpResponse response) {
    const std::string tag = StrongETag(response.Body);
    if (tag.empty()) return response;
    if (NamesTag(request.IfNoneMatch, tag)) {
        response = HttpResponse();
        response.Status = Velmora::STATUS_304_NOT_MODIFIED;
    }
    response.Headers.emplace_back("ETag", tag);
    response.Headers.emplace_back("Cache-Control", "no-cache");
    return response;
}

bool MatchesTag(std::string_view if_match, const HttpResponse& response) {
    if (if_match == "*") return true;
    for (const auto& [name, tag] : response.Headers) {
        if (name != "ETag") continue;
        const std::size_t at = if_match.find(tag);
        return at != if_match.npos && (at < 2 || if_match.substr(at - 2, 2) != "W/");
    }
    return false;
}

std::string PercentEncode(std::string_view text) {
    constexpr char Digits[] = "0123456789ABCDEF";
    std::string encoded;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (IsUnreserved(c)) {
            encoded += c;
        } else {
            encoded += {'%', Digits[byte >> 4], Digits[byte & 15]};
        }
    }
    return encoded;
}

std::string ApiPath(std::initializer_list<std::string_view> segments) {
    std::string path(ApiPrefix);
    for (const std::string_view segment : segments) path += '/' + PercentEncode(segment);
    return path;
}

void AppendJsonString(std::string& json, const std::string& text) {
    if (std::all_of(text.begin(), text.end(), IsPlainInJson)) {
        json.append(1, '"').append(text).append(1, '"');
        return;
    }
    std::string encoded;
    if (Velmora::PListData(text).EncodeJSON(encoded).Success()) json += encoded;
}

std::optional<HttpResponse> ReadBody(const RestCall& call, Velmora::PListDict& body, std::size_t max_depth) {
    if (call.Request.Body.empty()) {
        return Problem(Velmora::STATUS_400_BAD_REQ,
                       "The request needs a JSON object as its body, and has none.");
    }
    Mirel::Result_t why;
    const std::unique_ptr<Velmora::PListItem> item =
        Velmora::PListItem::CreateFromJSON(std::string(call.Request.Body), &why, max_depth);
    if (item == nullptr)
        return Problem(Velmora::STATUS_400_BAD_REQ, std::string("The body is not JSON: ") + why.Message());
    const Velmora::PListDict* dict = AsDict(item.get());
    if (dict == nullptr) {
        return Problem(Velmora::STATUS_422_UNPROCESSABLE, "The body is not a JSON object.",
                       {{"", "must be an object"}});
    }
    body = *dict;
    return std::nullopt;
}

std::optional<HttpResponse> ReadLimit(const RestCall& call, std::size_t& limit) {
    const std::string* text = call.Parameter("limit");
    if (text == nullptr) return std::nullopt;
    const char* end = text->data() + text->size();
    const auto [stop, error] = std::from_chars(text->data(), end, limit);
    if (error == std::errc() && stop == end) return std::nullopt;
    return BadParameter("limit", "must be a whole number, 0 or more");
}

std::optional<HttpResponse> ReadAfter(const QueryParameters& query,
                                      std::optional<Velmora::PostingId>& after) {
    const std::string* text = FindParameter(query, "after");
    if (text == nullptr) return std::nullopt;
    after = Velmora::PostingId::FromText(*text);
    if (after) return std::nullopt;
    return BadParameter("after", "must be the id of a posting: EPOCH-NUMBER");
}

}  // namespace Server
