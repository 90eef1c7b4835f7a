// baseline-json does the bridge's work with the same libraries at the lowest cost. It parses and
// signs each datagram, POSTs it on one handle whose options are set once, and parses and writes the
// response. A second thread polls a queue every 10 ms and publishes the replies. It does not
// validate, log or supervise anything, and runs until a signal ends it. It shares no code with the
// daemon, so that they have no common overhead.
//
//   baseline-json UPSTREAM_PORT BROKER_HOST BROKER_PORT BASE_URL
#include <curl/curl.h>
#include <mosquittopp.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <sys/socket.h>

#include <json/json.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <mutex>
#include <thread>

namespace {

constexpr const char* secret = "00112233-4455-6677-8899-aabbccddeeffDEVICE";

void require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "baseline-json: %s\n", what);
        std::exit(1);
    }
}

std::string timestampNow() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    char seconds[32];
    std::strftime(seconds, sizeof seconds, "%Y-%m-%dT%H:%M:%S.", &utc);
    return seconds + std::to_string(1000000 + now.tv_nsec / 1000).substr(1) + "Z";
}

std::string tokenFor(const std::string& timestamp, const std::string& path) {
    const std::string text = secret + timestamp + "/api/" + path;
    unsigned char digest[SHA256_DIGEST_LENGTH];
    static const EVP_MD* const sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    EVP_Digest(text.data(), text.size(), digest, nullptr, sha256, nullptr);
    std::string token;
    for (const unsigned char byte : digest) {
        token += "0123456789abcdef"[byte >> 4];
        token += "0123456789abcdef"[byte & 15];
    }
    return token;
}

std::size_t append(char* data, std::size_t size, std::size_t count, std::string* text) {
    text->append(data, size * count);
    return size * count;
}

// Uses mosquittopp, like the daemon. mosquittopp formats a text for every packet. If the baseline
// did not use it, this time would count as a cost of the daemon's own code.
class Broker : public mosqpp::mosquittopp {
  public:
    Broker(const char* host, int port) {
        require(connect(host, port, 5) == MOSQ_ERR_SUCCESS && loop_start() == MOSQ_ERR_SUCCESS,
                "the broker does not accept the connection");
        std::thread([this] { publishForEver(); }).detach();
    }

    void queueReply(std::string&& payload) {
        const std::lock_guard<std::mutex> guard(mutex);
        payloads.push_back(std::move(payload));
    }

  private:
    void on_connect(int /*rc*/) override {
        const int on = 1;
        setsockopt(socket(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }

    [[noreturn]] void publishForEver() {
        for (;;) {
            std::deque<std::string> batch;
            {
                const std::lock_guard<std::mutex> guard(mutex);
                batch.swap(payloads);
            }
            for (const std::string& text : batch) {
                publish(nullptr, "lora/veyra", static_cast<int>(text.size()), text.data(), 1);
            }
            if (batch.empty()) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        }
    }

    std::mutex mutex;
    std::deque<std::string> payloads;
};

class Relay {
  public:
    Relay(std::string baseUrl, Broker& replies)
        : base(std::move(baseUrl))
        , broker(replies) {
        // Builds the list itself, because libcurl's function would copy every header.
        for (std::size_t i = 0; i < std::size(headers); ++i) {
            list[i] = {headers[i].data(), i + 1 < std::size(headers) ? &list[i + 1] : nullptr};
        }
        curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, append);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, list);
        curl_easy_setopt(curl, CURLOPT_CAINFO, "/etc/ssl/certs/DigiCert_Global_Root_CA.pem");
        curl_easy_setopt(curl, CURLOPT_POST, 1L);
        curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
        curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, "");
    }

    void handle(const char* text, std::size_t length) {
        Json::Value datagram;
        require(reader.parse(text, text + length, datagram, true), "a datagram is not JSON");
        const std::string path = datagram["path"].asString();
        const std::string timestamp = timestampNow();
        const std::string token = tokenFor(timestamp, path);
        // Replaced in place: the lengths never change.
        headers[0].replace(headers[0].size() - token.size(), token.size(), token);
        headers[1].replace(headers[1].size() - timestamp.size(), timestamp.size(), timestamp);
        Json::Value& request = datagram["request"];
        request["timestamp"] = timestamp;
        request["token"] = token;
        post(base + path, writer.write(request));
        Json::Value reply;
        reader.parse(answer.data(), answer.data() + answer.size(), reply["result"], true);
        reply["method"] = "POST";
        reply["timestamp"] = timestamp;
        reply["path"] = path;
        std::string message = writer.write(reply);
        message.pop_back(); // the line feed
        broker.queueReply(std::move(message));
    }

  private:
    void post(const std::string& url, const std::string& body) {
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
        answer.clear();
        require(curl_easy_perform(curl) == CURLE_OK, "a request failed");
    }

    const std::string base;
    Broker& broker;
    std::string headers[6] = {"X-API-HASH: " + std::string(64, '0'),
                              "X-API-TIMESTAMP: " + std::string(27, '0'),
                              "X-API-SERIAL: SN0000001",
                              "Accept: application/json",
                              "Content-Type: application/json",
                              "charsets: utf-8"};
    curl_slist list[6];
    CURL* const curl = curl_easy_init();
    std::string answer;
    Json::Reader reader;
    Json::FastWriter writer;
};

} // namespace

int main(int argc, char** argv) {
    require(argc == 5, "usage: UPSTREAM_PORT BROKER_HOST BROKER_PORT BASE_URL");
    std::signal(SIGPIPE, SIG_IGN);
    mosqpp::lib_init();
    Broker broker(argv[2], std::stoi(argv[3]));
    Relay relay(argv[4], broker);
    const int upstream = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(argv[1])));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    require(bind(upstream, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0,
            "the upstream port is in use");
    static char datagram[16385];
    for (;;) {
        const ssize_t count = recv(upstream, datagram, sizeof datagram - 1, 0);
        require(count > 0, "nothing received");
        relay.handle(datagram, static_cast<std::size_t>(count));
    }
}
