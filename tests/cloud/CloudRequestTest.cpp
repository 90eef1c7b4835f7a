#include "cloud/CloudRequest.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <future>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// The bytes that a plain HTTP server receives for `body`; it answers with {"a":1}.
std::string requestOnTheWire(Json::Value& body, Json::Value& response) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
    listen(listener, 1);
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    std::future<std::string> received = std::async(std::launch::async, [listener] {
        const int connection = accept(listener, nullptr, nullptr);
        std::string bytes(4096, '\0'); // the short requests of these tests come in one piece
        bytes.resize(static_cast<std::size_t>(recv(connection, bytes.data(), bytes.size(), 0)));
        const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 7\r\n\r\n{\"a\":1}";
        send(connection, answer.data(), answer.size(), 0);
        close(connection);
        return bytes;
    });
    CURL* const handle = curl_easy_init();
    const std::string url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/m1";
    EXPECT_TRUE(sendCloudRequest(handle, url, body, response, true, "post"));
    curl_easy_cleanup(handle);
    close(listener);
    return received.get();
}

} // namespace

TEST(CloudRequest, SendsItsHeadersInOrderAndAnEmptySerial) {
    Json::Value body;
    body["token"] = " abc";
    body["timestamp"] = "now";
    body["data"] = 7;
    Json::Value response;
    const std::string request = requestOnTheWire(body, response);
    EXPECT_EQ(request.rfind("POST /m1 HTTP/1.1\r\n", 0), 0U);
    EXPECT_NE(request.find("\r\nAccept: application/json\r\nContent-Type: application/json\r\n"
                           "charsets: utf-8\r\nX-API-SERIAL:\r\nX-API-HASH:  abc\r\n"
                           "X-API-TIMESTAMP: now\r\n"),
              std::string::npos)
        << request;
    EXPECT_EQ(request.substr(request.find("\r\n\r\n") + 4), "{\"data\":7}\n");
    EXPECT_EQ(response["a"], 1);
}
