// Answers with the console's files.
#include "rest/Console.h"

#include "rest/ConsoleFiles.h"

namespace Server {

namespace {

// No script, style, picture or connection but this server's own, nothing written into the page itself, no
// framing.
constexpr const char* Policy =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self' data:; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

std::string_view FileName(std::string_view path) {
    return path == "/" ? "console/index.html" : path.substr(path.starts_with('/') ? 1 : 0);
}

const ConsoleFile* FindFile(std::string_view name) {
    if (name.empty()) return nullptr;
    for (const ConsoleFile* file = ConsoleFiles; !file->Name.empty(); ++file) {
        if (file->Name == name) return file;
    }
    return nullptr;
}

const char* TypeOf(std::string_view name) {
    if (name.ends_with(".html")) return "text/html; charset=utf-8";
    if (name.ends_with(".css")) return "text/css; charset=utf-8";
    if (name.ends_with("js")) return "text/javascript; charset=utf-8";
    return name.ends_with(".svg") ? "image/svg+xml" : "application/octet-stream";
}

// The tags are quoted hashes: none is part of another.
bool HasCurrent(const HttpRequest& request, const ConsoleFile& file) {
    return request.IfNoneMatch == "*" || request.IfNoneMatch.find(file.ETag) != std::string_view::npos;
}

}  // namespace

bool IsConsolePath(std::string_view path) {
    return FindFile(FileName(path)) != nullptr;
}

std::optional<HttpResponse> ConsoleAsset(const HttpRequest& request) {
    const ConsoleFile* file = FindFile(FileName(request.Path));
    if (file == nullptr) return std::nullopt;
    HttpResponse response;
    response.Headers = {{"ETag", std::string(file->ETag)},
                        {"Cache-Control", "no-cache"},
                        {"Content-Security-Policy", Policy},
                        {"Referrer-Policy", "no-referrer"}};
    if (HasCurrent(request, *file)) {
        response.Status = Velmora::STATUS_304_NOT_MODIFIED;
        return response;
    }
    response.ContentType = TypeOf(file->Name);
    response.StaticBody = file->Content;
    return response;
}

}  // namespace Server
