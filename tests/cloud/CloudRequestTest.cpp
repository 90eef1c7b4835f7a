#include "cloud/CloudRequest.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

// A plain HTTP server on loopback that answers one request with `answer` and keeps what it got.
class OneShotServer {
  public:
    explicit OneShotServer(std::string answer)
        : listener(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        bind(listener, reinterpret_cast<sockaddr*>(&address), length);
        listen(listener, 1);
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
        url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/api/m1";
        thread = std::thread([this, text = std::move(answer)] { serve(text); });
    }
    ~OneShotServer() { close(listener); }
    void join() { thread.join(); }
    std::string url;
    std::string received;

  private:
    void serve(const std::string& answer) {
        const int connection = accept(listener, nullptr, nullptr);
        char buffer[4096];
        // The bodies of these tests come in one piece with their headers.
        const ssize_t count = recv(connection, buffer, sizeof buffer, 0);
        received.assign(buffer, static_cast<std::size_t>(count));
        send(connection, answer.data(), answer.size(), 0);
        close(connection);
    }
    int listener;
    std::thread thread;
};

std::string httpAnswer(const std::string& body) {
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n\r\n" + body;
}

struct CloudRequest : testing::Test {
    ~CloudRequest() override { curl_easy_cleanup(handle); }

    // Makes one accepted request and returns it as the server received it.
    std::string send(Json::Value& body, const std::string& method, bool collect = true) {
        OneShotServer server(httpAnswer("{\"a\":1}"));
        EXPECT_TRUE(sendCloudRequest(handle, server.url, body, response, collect, method));
        server.join();
        return server.received;
    }
    CURL* handle = curl_easy_init();
    Json::Value response;
};

// Whether the texts stand in `text` in this order.
testing::AssertionResult inOrder(const std::string& text, const std::vector<std::string>& parts) {
    std::size_t at = 0;
    for (const std::string& part : parts) {
        at = text.find(part, at);
        if (at == std::string::npos) {
            return testing::AssertionFailure() << part << " is missing or out of order in\n"
                                               << text;
        }
    }
    return testing::AssertionSuccess();
}

} // namespace

TEST_F(CloudRequest, MovesTheSignatureIntoHeaders) {
    Json::Value body;
    body["brantle_serial"] = " SN 1";
    body["token"] = "abc";
    body["timestamp"] = "now";
    body["data"]["id"] = 7;
    EXPECT_TRUE(inOrder(send(body, "POST"),
                        {"POST /api/m1 HTTP/1.1\r\n", "\r\nAccept: application/json\r\n",
                         "Content-Type: application/json\r\n", "charsets: utf-8\r\n",
                         "X-API-SERIAL:  SN 1\r\n", "X-API-HASH: abc\r\n",
                         "X-API-TIMESTAMP: now\r\n", "\r\n\r\n{\"data\":{\"id\":7}}\n"}));
    EXPECT_EQ(body.getMemberNames(), std::vector<std::string>{"data"});
    EXPECT_EQ(response["a"], 1);
}

TEST_F(CloudRequest, SendsAnEmptySerialAndNoHeaderForWhatIsMissing) {
    Json::Value body(Json::objectValue);
    const std::string request = send(body, "DELETE");
    EXPECT_TRUE(inOrder(request, {"POST /api/m1 ", "X-API-SERIAL:\r\n", "\r\n\r\n{}\n"}));
    EXPECT_EQ(request.find("X-API-HASH"), std::string::npos);
    EXPECT_EQ(request.find("X-API-TIMESTAMP"), std::string::npos);
}

TEST_F(CloudRequest, UsesTheMethodForOneRequestOnly) {
    Json::Value body(Json::objectValue);
    EXPECT_TRUE(inOrder(send(body, "PUT"), {"PUT /api/m1 ", "\r\n\r\n{}\n"}));
    const std::string get = send(body, "GET");
    EXPECT_TRUE(inOrder(get, {"GET /api/m1 ", "\r\n\r\n"}));
    EXPECT_EQ(get.substr(get.size() - 4), "\r\n\r\n") << "no body";
    EXPECT_TRUE(inOrder(send(body, "post"), {"POST /api/m1 ", "\r\n\r\n{}\n"}));
}

TEST_F(CloudRequest, LeavesTheAnswerToLibcurlUnlessCollected) {
    Json::Value body(Json::objectValue);
    testing::internal::CaptureStdout();
    send(body, "POST", false);
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "{\"a\":1}");
    EXPECT_TRUE(response.isNull());
}

TEST_F(CloudRequest, FailsAtOnceWithoutAHandle) {
    Json::Value body(Json::objectValue);
    response = 5;
    EXPECT_FALSE(sendCloudRequest(nullptr, "http://127.0.0.1:1/", body, response, true, "POST"));
    EXPECT_TRUE(response.isNull());
}
