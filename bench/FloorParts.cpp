#include "FloorParts.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

std::atomic<bool> stopFlag{false};

void handleStop(int) {
    stopFlag = true;
}

constexpr std::string_view secret = "00112233-4455-6677-8899-aabbccddeeffdevice";

std::size_t append(char* data, std::size_t size, std::size_t count, std::string* text) {
    text->append(data, size * count);
    return size * count;
}

// The end of a list whose last header was just appended: where its value is overwritten later.
char* lastValue(curl_slist* list, std::size_t length) {
    while (list->next != nullptr) {
        list = list->next;
    }
    return list->data + std::strlen(list->data) - length;
}

} // namespace

FloorOptions readFloorOptions(int argc, char** argv) {
    const bool reset = argc == 5 && std::string_view(argv[4]) == "reset";
    if (argc != 4 && !reset) {
        std::fputs("usage: floor UPSTREAM_PORT BROKER_PORT BASE_URL [reset]\n", stderr);
        std::exit(2);
    }
    std::signal(SIGTERM, handleStop);
    std::signal(SIGPIPE, SIG_IGN);
    return {std::stoi(argv[1]), std::stoi(argv[2]), argv[3], reset};
}

bool stopRequested() {
    return stopFlag.load(std::memory_order_relaxed);
}

int openUpstream(int port) {
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    timeval timeout{};
    timeout.tv_usec = 100000;
    if (bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) != 0) {
        std::perror("floor: upstream port");
        std::exit(1);
    }
    return descriptor;
}

void writeTimestamp(char* out) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    char text[80];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                  now.tv_nsec / 1000);
    std::memcpy(out, text, timestampLength + 1);
}

void writeToken(char* out, const char* timestamp, std::string_view path) {
    char text[1024];
    char* end = text + secret.copy(text, secret.size());
    std::memcpy(end, timestamp, timestampLength);
    end += timestampLength;
    std::memcpy(end, "/api/", 5);
    end += 5;
    end += path.copy(end, 512);
    unsigned char digest[SHA256_DIGEST_LENGTH];
    static const EVP_MD* const sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    EVP_Digest(text, static_cast<std::size_t>(end - text), digest, nullptr, sha256, nullptr);
    for (const unsigned char byte : digest) {
        *out++ = "0123456789abcdef"[byte >> 4];
        *out++ = "0123456789abcdef"[byte & 15];
    }
    *out = 0;
}

FloorCloud::FloorCloud(bool resetAfterEach)
    : reset(resetAfterEach)
    , handle(curl_easy_init()) {
    const std::string hash = "X-API-HASH: " + std::string(tokenLength, '0');
    const std::string time = "X-API-TIMESTAMP: " + std::string(timestampLength, '0');
    for (const char* header : {"Accept: application/json", "Content-Type: application/json",
                               "charsets: utf-8", "X-API-SERIAL: SN0000001"}) {
        headers = curl_slist_append(headers, header);
    }
    headers = curl_slist_append(headers, hash.c_str());
    hashValue = lastValue(headers, tokenLength);
    headers = curl_slist_append(headers, time.c_str());
    timestampValue = lastValue(headers, timestampLength);
    setOptions();
}

void FloorCloud::setOptions() {
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, append);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &answer);
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(handle, CURLOPT_CAINFO, "/etc/ssl/certs/DigiCert_Global_Root_CA.pem");
    curl_easy_setopt(handle, CURLOPT_POST, 1L);
    curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, "");
}

const std::string& FloorCloud::post(const std::string& url, std::string_view body,
                                    const char* timestamp, const char* token) {
    std::memcpy(timestampValue, timestamp, timestampLength);
    std::memcpy(hashValue, token, tokenLength);
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    answer.clear();
    long status = 0;
    if (curl_easy_perform(handle) != CURLE_OK ||
        curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status) != CURLE_OK || status != 200) {
        std::fprintf(stderr, "floor: request failed, status %ld\n", status);
        std::exit(1);
    }
    if (reset) {
        curl_easy_reset(handle);
        setOptions();
    }
    return answer;
}

FloorBroker::FloorBroker(int port) {
    mosqpp::lib_init();
    if (connect("127.0.0.1", port, 5) != MOSQ_ERR_SUCCESS || loop_start() != MOSQ_ERR_SUCCESS) {
        std::fputs("floor: no broker\n", stderr);
        std::exit(1);
    }
}

void FloorBroker::on_connect(int /*rc*/) {
    const int on = 1;
    setsockopt(socket(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void FloorBroker::publishReply(const std::string& payload) {
    publish(nullptr, "lora/veyra", static_cast<int>(payload.size()), payload.data(), 1, false);
}
