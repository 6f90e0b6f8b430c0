// CloudEvents come in: /api/v1/cloudevents posts the event that the CloudEvent's type names.
#include <openssl/evp.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "EventManager.h"
#include "MR_text.h"
#include "rest/Rest.h"

namespace Server {

namespace {

constexpr std::string_view Structured = "application/cloudevents+json";
constexpr std::string_view AnyCloudEvent = "application/cloudevents";
constexpr const char* TypeKey = "type";

// A media type without its parameters, in small letters.
std::string MediaType(std::string_view content_type) {
    std::string type(content_type.substr(0, content_type.find(';')));
    while (!type.empty() && type.back() == ' ') type.pop_back();
    std::transform(type.begin(), type.end(), type.begin(), Mirel::LowerASCII);
    return type;
}

bool IsJsonType(std::string_view type) {
    return type == Velmora::Strings::MIME_json || type.ends_with("+json");
}

std::string Base64(std::string_view bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int size =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                        reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(size));
    return text;
}

// The data of the binary mode, as the JSON form has it.
std::optional<HttpResponse> ReadData(const RestCall& call, Velmora::PListDict& event) {
    const std::string_view body = call.Request.Body;
    if (body.empty()) return std::nullopt;
    const std::string type = MediaType(call.Request.ContentType);
    if (!type.empty()) event.SetValue("datacontenttype", std::string(call.Request.ContentType));
    if (type.empty() || IsJsonType(type)) {
        Mirel::Result_t why;
        const std::unique_ptr<Velmora::PListItem> data =
            Velmora::PListItem::CreateFromJSON(std::string(body), &why);
        if (data == nullptr)
            return Problem(Velmora::STATUS_400_BAD_REQ,
                           std::string("The CloudEvent's data is not JSON: ") + why.Message());
        event.SetItem("data", *data);
    } else if (type.starts_with("text/") && Mirel::IsUtf8(body)) {
        event.SetValue("data", std::string(body));
    } else {
        event.SetValue("data_base64", Base64(body));
    }
    return std::nullopt;
}

// The attributes of the binary mode, which are header fields.
std::optional<HttpResponse> ReadBinary(const RestCall& call, Velmora::PListDict& event) {
    for (const auto& [field, value] : *call.Request.CloudEvent) {
        std::string name(field.substr(3));
        std::transform(name.begin(), name.end(), name.begin(), Mirel::LowerASCII);
        const std::optional<std::string> text = PercentDecode(value);
        if (!text || event.HasItem(name)) {
            return Problem(Velmora::STATUS_400_BAD_REQ,
                           "The header field \"ce-" + name + "\" " +
                               (text ? "is given twice." : "holds a malformed percent escape."));
        }
        event.SetValue(name, *text);
    }
    return ReadData(call, event);
}

void CheckExtensions(const Velmora::PListDict& event, std::vector<Fault>& faults) {
    for (const auto& [key, item] : event) {
        if (key == "data" || key == "data_base64") continue;
        const bool named = std::all_of(
            key.begin(), key.end(), [](char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); });
        if (!named)
            faults.push_back({PointerTo("", key), "is no attribute's name: small letters and digits"});
        if (AsDict(&item) != nullptr || AsArray(&item) != nullptr)
            faults.push_back({PointerTo("", key), "must be a single value"});
    }
}

// What every CloudEvent must have; the name of the event to post.
std::optional<HttpResponse> CheckEvent(const Velmora::PListDict& event, std::string& name) {
    std::vector<Fault> faults;
    Shape shape(event, "", faults);
    const auto version = shape.NonEmptyText("specversion", Need::Required);
    if (version && *version != "1.0") shape.Blame("specversion", "must be \"1.0\"");
    shape.NonEmptyText("id", Need::Required);
    shape.NonEmptyText("source", Need::Required);
    name = shape.NonEmptyText(TypeKey, Need::Required).value_or("");
    const auto time = shape.Text("time");
    Mirel::Timestamp read;
    if (time && !read.DecodeString(time->c_str()))
        shape.Blame("time", "must be a time like \"2026-01-31T12:00:00+00:00\"");
    shape.Text("data_base64");
    if (event.HasItem("data") && event.HasItem("data_base64"))
        shape.Blame("data_base64", "cannot stand beside \"data\"");
    CheckExtensions(event, faults);
    if (faults.empty()) return std::nullopt;
    return Problem(Velmora::STATUS_422_UNPROCESSABLE, "This is no whole CloudEvent.", faults);
}

std::optional<HttpResponse> ReadEvent(const RestCall& call, Velmora::PListDict& event) {
    const std::string type = MediaType(call.Request.ContentType);
    if (type == Structured) return ReadBody(call, event);
    if (type.starts_with(AnyCloudEvent)) {
        return Problem(
            Velmora::STATUS_415_MEDIA_TYPE,
            "Of the structured modes only application/cloudevents+json is taken, one event a request.");
    }
    if (call.Request.CloudEvent != nullptr && !call.Request.CloudEvent->empty())
        return ReadBinary(call, event);
    return Problem(
        Velmora::STATUS_415_MEDIA_TYPE,
        "A CloudEvent is wanted: a body of application/cloudevents+json, or its attributes as header "
        "fields (ce-specversion, ce-id, ce-source, ce-type).");
}

}  // namespace

HttpResponse PostCloudEvent(RestCall& call) {
    Velmora::PListDict event;
    if (auto refused = ReadEvent(call, event)) return std::move(*refused);
    std::string name;
    if (auto refused = CheckEvent(event, name)) return std::move(*refused);
    if (!call.MaySee(name)) return EventForbidden(*call.Caller, name);
    std::string json;
    if (event.EncodeJSON(json).Failure())
        return Problem(Velmora::STATUS_500_SERVER_ERROR, "The CloudEvent could not be encoded.");
    return PostNamed(call, name, &event, json);
}

}  // namespace Server
