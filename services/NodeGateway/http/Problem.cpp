#include "http/Problem.h"

#include <boost/beast/http/status.hpp>
#include <boost/json.hpp>

#include "text/Utf8.h"

namespace gateway {

HttpResponse Problem(int status, std::string_view detail, std::string_view field) {
    const auto phrase =
        boost::beast::http::obsolete_reason(boost::beast::http::int_to_status(static_cast<unsigned>(status)));
    boost::json::object document{{"title", phrase}, {"status", status}, {"detail", detail}};
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
