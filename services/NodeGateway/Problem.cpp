#include "Problem.h"

#include <boost/json.hpp>

#include "text/Utf8.h"

namespace gateway {

std::string_view StatusPhrase(int status) {
    switch (status) {
        case 400:
            return "Bad Request";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 413:
            return "Payload Too Large";
        case 414:
            return "URI Too Long";
        case 500:
            return "Internal Server Error";
        case 503:
            return "Service Unavailable";
        case 504:
            return "Gateway Timeout";
        default:
            return "Error";
    }
}

HttpResponse Problem(int status, std::string_view detail, std::string_view field) {
    boost::json::object document{{"title", StatusPhrase(status)}, {"status", status}, {"detail", detail}};
    if (!field.empty()) {
        document["field"] = field;
    }
    HttpResponse response;
    response.status = status;
    response.contentType = "application/problem+json";
    response.body = text::ValidUtf8(boost::json::serialize(document));
    return response;
}

}  // namespace gateway
