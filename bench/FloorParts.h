// What the floors do for a datagram: one signed POST on a handle whose options are set once, and
// an MQTT message. Written for the benchmark alone, as short as the work allows: nothing of the
// daemon is in it, so that it cannot share the daemon's cost. Single-threaded but for publish().
#pragma once

#include <curl/curl.h>
#include <mosquittopp.h>

#include <string>
#include <string_view>

// Command line of a floor: UPSTREAM_PORT BROKER_PORT BASE_URL [reset].
struct FloorOptions {
    int upstreamPort;
    int brokerPort;
    std::string baseUrl;
    bool reset;
};

FloorOptions readFloorOptions(int argc, char** argv);

// Set by SIGTERM.
bool stopRequested();

// A bound UDP socket on the loopback interface with a receive timeout of 100 ms.
int openUpstream(int port);

// The time as it is signed, such as 2026-11-13T04:25:47.123456Z.
constexpr std::size_t timestampLength = 27;
void writeTimestamp(char* out);

class FloorCloud {
  public:
    // With `resetAfterEach` the handle is reset after each request and gets its options anew.
    explicit FloorCloud(bool resetAfterEach);

    // POSTs `body`, which must stay in place, and returns the answer, valid until the next call.
    const std::string& post(const std::string& url, std::string_view body, const char* timestamp,
                            const char* token);

  private:
    void setOptions();

    const bool reset;
    CURL* handle;
    curl_slist* headers = nullptr;
    char* hashValue; // where the headers' values stand, overwritten for each request
    char* timestampValue;
    std::string answer;
};

// The request's token: 64 digits and a 0.
constexpr std::size_t tokenLength = 64;
void writeToken(char* out, const char* timestamp, std::string_view path);

// The same binding of the broker library that the daemon is bound to: it composes a text for every
// packet, which is no cost of the daemon's.
class FloorBroker : public mosqpp::mosquittopp {
  public:
    explicit FloorBroker(int port);
    void publishReply(const std::string& payload);

  private:
    void on_connect(int rc) override;
};
