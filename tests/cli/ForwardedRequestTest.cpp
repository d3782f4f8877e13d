#include "ForwardedRequest.h"

#include <gtest/gtest.h>

namespace arborctl {
namespace {

constexpr std::string_view kSecret = "0123456789abcdef";

std::string Head(std::string_view line, std::string_view headers = "Host: 127.0.0.1:80\r\n") {
    return std::string(line) + "\r\n" + std::string(headers) + "\r\n";
}

/// 200: it is handed over.
int StatusOf(const std::string& head) {
    const auto forwarded = ForwardedHead(head, {80, kSecret});
    return forwarded ? 200 : forwarded.error().status;
}

TEST(ForwardedRequest, OnlyThePagesFilesTakeNoSecret) {
    for (const char* open : {"GET / HTTP/1.1", "HEAD / HTTP/1.1", "GET /main.js HTTP/1.1"}) {
        EXPECT_EQ(StatusOf(Head(open)), 200) << open;
    }
    for (const char* closed : {"GET /v1/status HTTP/1.1", "POST / HTTP/1.1", "GET /%761/status HTTP/1.1",
                               "GET //v1/status HTTP/1.1", "GET /x?y HTTP/1.1", "GET http://127.0.0.1/ HTTP/1.1"}) {
        EXPECT_EQ(StatusOf(Head(closed)), 401) << closed;
        EXPECT_EQ(StatusOf(Head(closed, "Host: localhost:80\r\nAuthorization: Bearer 0123456789abcdef\r\n")), 200);
    }
    for (const char* wrong :
         {"Authorization: Bearer 0123456789abcdeX\r\n", "Authorization: Bearer 0123456789abcdef0\r\n",
          "Authorization: Bearer \r\n", "Authorization: 0123456789abcdef\r\n",
          "Authorization: Bearer 0123456789abcdef\r\nAuthorization: Bearer x\r\n"}) {
        EXPECT_EQ(StatusOf(Head("GET /v1/status HTTP/1.1", "Host: 127.0.0.1:80\r\n" + std::string(wrong))), 401)
            << wrong;
    }
}

TEST(ForwardedRequest, OtherHostsOtherPagesAndWhatIsNotWellFormedAreRefused) {
    const std::pair<std::string, int> rows[]{
        {"Host: device.example\r\n", 421},
        {"Host: 127.0.0.1\r\n", 421},
        {"Host: 127.0.0.1:8080\r\n", 421},
        {"", 400},
        {"Host: 127.0.0.1:80\r\nHost: 127.0.0.1:80\r\n", 400},
        {"Host: 127.0.0.1:80\r\nOrigin: http://127.0.0.1:80\r\n", 200},
        {"Host: 127.0.0.1:80\r\nOrigin: https://127.0.0.1:80\r\n", 403},
        {"Host: 127.0.0.1:80\r\nOrigin: null\r\n", 403},
        {"Host: 127.0.0.1:80\r\n folded: x\r\n", 400},
        {"Host: 127.0.0.1:80\r\nX : y\r\n", 400},
        {"Host: 127.0.0.1:80\r\nX: a\nHost: b\r\n", 400},
        {"Host: 127.0.0.1:80\r\nno colon\r\n", 400},
    };
    for (const auto& [headers, status] : rows) {
        EXPECT_EQ(StatusOf(Head("GET / HTTP/1.1", headers)), status) << headers;
    }
    for (const char* line : {"GET / HTTP/1.0", "GET /", "", "GET  / HTTP/1.1", "GET / x HTTP/1.1"}) {
        EXPECT_EQ(StatusOf(Head(line)), 400) << line;
    }
}

TEST(ForwardedRequest, WhatIsForThePortOnlyIsNotHandedOver) {
    const auto forwarded =
        ForwardedHead(Head("POST /v1/scan HTTP/1.1",
                           "Host: localhost:80\r\nAuthorization: Bearer 0123456789abcdef\r\n"
                           "Connection: keep-alive, x\r\nCookie: a=b\r\nOrigin: http://localhost:80\r\n"
                           "Content-Length:  2 \r\n"),
                      {80, kSecret});
    ASSERT_TRUE(forwarded);
    EXPECT_EQ(*forwarded,
              "POST /v1/scan HTTP/1.1\r\nhost: localhost\r\nconnection: close\r\ncontent-length: 2\r\n\r\n");
}

}  // namespace
}  // namespace arborctl
