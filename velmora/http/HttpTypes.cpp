// The texts of methods and statuses, and the order of header names.
#include <algorithm>
#include <cctype>
#include <iterator>

#include "VL_HTTP.h"

namespace Velmora {

namespace {

struct StatusText {
    int Number;
    const char* Text;
};

// Every status of the IANA HTTP Status Code Registry, in order of its number.
constexpr StatusText StatusTexts[] = {
    {100, "Continue"},
    {101, "Switching Protocols"},
    {102, "Processing"},
    {103, "Early Hints"},
    {200, "OK"},
    {201, "Created"},
    {202, "Accepted"},
    {203, "Non-Authoritative Information"},
    {204, "No Content"},
    {205, "Reset Content"},
    {206, "Partial Content"},
    {207, "Multi-Status"},
    {208, "Already Reported"},
    {226, "IM Used"},
    {300, "Multiple Choices"},
    {301, "Moved Permanently"},
    {302, "Found"},
    {303, "See Other"},
    {304, "Not Modified"},
    {305, "Use Proxy"},
    {307, "Temporary Redirect"},
    {308, "Permanent Redirect"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {402, "Payment Required"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {406, "Not Acceptable"},
    {407, "Proxy Authentication Required"},
    {408, "Request Timeout"},
    {409, "Conflict"},
    {410, "Gone"},
    {411, "Length Required"},
    {412, "Precondition Failed"},
    {413, "Content Too Large"},
    {414, "URI Too Long"},
    {415, "Unsupported Media Type"},
    {416, "Range Not Satisfiable"},
    {417, "Expectation Failed"},
    {421, "Misdirected Request"},
    {422, "Unprocessable Content"},
    {423, "Locked"},
    {424, "Failed Dependency"},
    {425, "Too Early"},
    {426, "Upgrade Required"},
    {428, "Precondition Required"},
    {429, "Too Many Requests"},
    {431, "Request Header Fields Too Large"},
    {451, "Unavailable For Legal Reasons"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Timeout"},
    {505, "HTTP Version Not Supported"},
    {506, "Variant Also Negotiates"},
    {507, "Insufficient Storage"},
    {508, "Loop Detected"},
    {510, "Not Extended"},
    {511, "Network Authentication Required"},
};
static_assert(std::is_sorted(std::begin(StatusTexts), std::end(StatusTexts),
                             [](const StatusText& lhs, const StatusText& rhs) {
                                 return lhs.Number < rhs.Number;
                             }));

}  // namespace

const char* MethodToString(Method_t method) {
    switch (method) {
        case METH_OPTIONS:
            return "OPTIONS";
        case METH_HEAD:
            return "HEAD";
        case METH_GET:
            return "GET";
        case METH_POST:
            return "POST";
        case METH_PUT:
            return "PUT";
        case METH_DELETE:
            return "DELETE";
        case METH_TRACE:
            return "TRACE";
        case METH_CONNECT:
            return "CONNECT";
        case METH_PATCH:
            return "PATCH";
    }
    return "UNKNOWN";
}

bool StatusIsSuccess(Status_t status) {
    return status >= 200 && status <= 299;
}

const char* StatusToString(Status_t status) {
    const auto found =
        std::lower_bound(std::begin(StatusTexts), std::end(StatusTexts), static_cast<int>(status),
                         [](const StatusText& entry, int number) { return entry.Number < number; });
    return found != std::end(StatusTexts) && found->Number == status ? found->Text : "Unknown Status";
}

bool ci_comp::operator()(const std::string& lhs, const std::string& rhs) const {
    return std::lexicographical_compare(lhs.begin(), lhs.end(), rhs.begin(), rhs.end(),
                                        [](char left, char right) {
                                            return std::tolower(static_cast<unsigned char>(left)) <
                                                   std::tolower(static_cast<unsigned char>(right));
                                        });
}

}  // namespace Velmora
