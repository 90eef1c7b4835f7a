#include "PeerFacts.h"

#include "HostFacts.h"
#include "Settings.h"
#include "cloud/CloudRequest.h"
#include "cloud/CloudTimestamp.h"
#include "cloud/RequestToken.h"
#include "common/Clock.h"
#include "mqtt/Mosquitto.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <tuple>
#include <unistd.h>

namespace {

constexpr long phaseLimitMs = 5000;

using Handle = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;
using Words = std::array<char, CURL_ERROR_SIZE>;
using Client = std::unique_ptr<mosquitto, decltype(&mosquitto_destroy)>;

template <typename Value>
Value infoOf(const Handle& handle, CURLINFO info) {
    Value value{};
    curl_easy_getinfo(handle.get(), info, &value);
    return value;
}

// Status and date of an answer, caught on their way: a signed request resets the handle at its end.
std::size_t takeHeader(char* data, std::size_t size, std::size_t count, CloudFacts* facts) {
    const std::string line(data, size * count);
    if (line.rfind("HTTP/", 0) == 0) {
        facts->status =
            std::strtol(line.c_str() + std::min(line.find(' '), line.size()), nullptr, 10);
    }
    // Not by libcurl's function, whose time may have 32 bits where this program's has 64.
    std::tm utc{};
    if (strncasecmp(line.c_str(), "date:", 5) == 0 &&
        strptime(line.c_str() + 5, " %a, %d %b %Y %H:%M:%S", &utc) != nullptr) {
        facts->date = timegm(&utc);
        facts->dateTaken = std::time(nullptr);
    }
    return size * count;
}

Handle makeHandle(Words& words, long limitMs, CloudFacts& facts) {
    Handle handle(curl_easy_init(), curl_easy_cleanup);
    curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_QUICK_EXIT, 1L); // not waiting for a silent resolver
    curl_easy_setopt(handle.get(), CURLOPT_ERRORBUFFER, words.data());
    curl_easy_setopt(handle.get(), CURLOPT_CONNECTTIMEOUT_MS, phaseLimitMs);
    curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT_MS, limitMs);
    curl_easy_setopt(handle.get(), CURLOPT_HEADERFUNCTION, takeHeader);
    curl_easy_setopt(handle.get(), CURLOPT_HEADERDATA, &facts);
    return handle;
}

// Performs the request. Returns the code and the words for it, empty when it is none.
std::pair<CURLcode, std::string> perform(const Handle& handle, const Words& words) {
    const CURLcode code = curl_easy_perform(handle.get());
    const auto error = static_cast<int>(infoOf<long>(handle, CURLINFO_OS_ERRNO));
    std::string text = words[0] == 0 ? curl_easy_strerror(code) : words.data();
    text += error == 0 ? "" : std::string(", ") + std::strerror(error);
    return {code, code == CURLE_OK ? "" : text};
}

// The trust is set by the daemon's own function.
Handle makeHead(const std::string& url, Words& words, long limitMs, CloudFacts& facts) {
    Handle handle = makeHandle(words, limitMs, facts);
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_NOBODY, 1L);
    setTrust(handle.get(), url);
    return handle;
}

// What matters of a refused peer's certificate, in the library's words; the date comes along.
// Nothing but this unsigned HEAD goes out unverified.
std::string lookUnverified(const std::string& url, CloudFacts& facts) {
    Words words{};
    const Handle handle = makeHead(url, words, 2000, facts);
    curl_easy_setopt(handle.get(), CURLOPT_CERTINFO, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(handle.get(), CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_perform(handle.get());
    std::string text;
    const auto* const chain = infoOf<curl_certinfo*>(handle, CURLINFO_CERTINFO);
    const bool seen = chain != nullptr && chain->num_of_certs > 0;
    for (const auto* item = seen ? chain->certinfo[0] : nullptr; item; item = item->next) {
        const std::string line = item->data;
        for (const char* const part : {"X509v3 Subject Alt", "Issuer:", "Start d", "Expire d"}) {
            text += line.rfind(part, 0) == 0 ? "; " + line : "";
        }
    }
    return text;
}

// The serial number that a path names, such as m1/gateways/SN0042/check_in.
std::string serialIn(const std::string& path) {
    const auto name = path.find("gateways/");
    const auto start = name == std::string::npos ? path.size() : name + std::strlen("gateways/");
    return path.substr(start, path.find('/', start) - start);
}

BrokerFacts& factsOf(void* given) {
    return *static_cast<BrokerFacts*>(given);
}

// With a client id of its own, since the broker would throw out a client that has the same one.
Client makeClient(BrokerFacts& facts) {
    const std::string id = "lora-veyra-doctor-" + std::to_string(getpid());
    Client client(mosquitto_new(id.c_str(), true, &facts), mosquitto_destroy);
    mosquitto_connect_callback_set(
        client.get(), [](mosquitto*, void* its, int code) { factsOf(its).answer = code; });
    mosquitto_subscribe_callback_set(client.get(),
                                     [](mosquitto*, void* its, int, int count, const int* granted) {
                                         factsOf(its).denied = count < 1 || granted[0] >= 128;
                                     });
    mosquitto_message_callback_set(client.get(),
                                   [](mosquitto*, void* its, const mosquitto_message* message) {
                                       factsOf(its).heard = factsOf(its).heard || !message->retain;
                                   });
    mosquitto_publish_v5_callback_set(
        client.get(), [](mosquitto*, void* its, int, int reason, const mosquitto_property*) {
            factsOf(its).published = reason;
        });
    return client;
}

// Whether something listens at the address; the broker library would wait for it without a limit.
// Returns libcurl's words, empty when it does.
std::string reach(const BrokerAddress& address) {
    Words words{};
    CloudFacts ignored;
    const Handle handle = makeHandle(words, phaseLimitMs, ignored);
    const bool bare = address.host.find(':') != std::string::npos; // an IPv6 address
    const std::string url = "http://" + (bare ? "[" + address.host + "]" : address.host) + ":" +
                            std::to_string(address.port);
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_CONNECT_ONLY, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_PROXY, "");
    return perform(handle, words).second;
}

// Returns whether the connection lasted.
template <typename Condition>
bool waitFor(const Client& client, std::uint64_t limitMs, Condition condition) {
    const std::uint64_t endMs = monotonicMillis() + limitMs;
    while (!condition() && monotonicMillis() < endMs) {
        if (mosquitto_loop(client.get(), 100, 1) != MOSQ_ERR_SUCCESS) {
            return false;
        }
    }
    return true;
}

} // namespace

CloudFacts askCloud(const std::string& url) {
    CloudFacts facts;
    std::string text;
    facts.url = maskedUrl(url);
    facts.verified = isVerified(url);
    facts.authorityError = facts.verified ? readText(cloudCaFile, text) : 0;
    Words words{};
    const Handle handle = makeHead(url, words, phaseLimitMs + 1000, facts);
    std::tie(facts.code, facts.words) = perform(handle, words);
    facts.verifyCode = infoOf<long>(handle, CURLINFO_SSL_VERIFYRESULT);
    facts.resolved = infoOf<double>(handle, CURLINFO_NAMELOOKUP_TIME) > 0;
    facts.connected = infoOf<long>(handle, CURLINFO_LOCAL_PORT) != 0;
    facts.secured = infoOf<double>(handle, CURLINFO_APPCONNECT_TIME) > 0;
    if (facts.code == CURLE_PEER_FAILED_VERIFICATION) {
        facts.certificate = lookUnverified(url, facts);
    }
    return facts;
}

long askSigned(const std::string& url, const std::string& path, const std::string& secret) {
    Words words{};
    CloudFacts facts;
    const Handle handle = makeHandle(words, phaseLimitMs, facts);
    CloudTimestamp now{};
    captureUtcTimestamp(now);
    Json::Value body;
    Json::Value response;
    body["brantle_serial"] = serialIn(path);
    body["timestamp"] = formatTimestamp(now);
    body["token"] = makeRequestToken(secret, formatTimestamp(now), path);
    sendCloudRequest(handle.get(), url + path, body, response, true, "GET");
    return facts.status;
}

BrokerFacts askBroker(const BrokerAddress& address,
                      const std::optional<BrokerCredentials>& credentials, BrokerTask task) {
    BrokerFacts facts;
    const Client client = makeClient(facts);
    facts.address = address.host + ":" + std::to_string(address.port);
    mosquitto_int_option(client.get(), MOSQ_OPT_PROTOCOL_VERSION,
                         task == BrokerTask::PUBLISH ? MQTT_PROTOCOL_V5 : MQTT_PROTOCOL_V311);
    if (credentials) {
        facts.user = credentials->username;
        mosquitto_username_pw_set(client.get(), facts.user.c_str(), credentials->password.c_str());
    }
    facts.words = reach(address);
    if (!facts.words.empty()) {
        return facts;
    }
    facts.words = "what listens there is no broker";
    mosquitto_connect(client.get(), address.host.c_str(), address.port, 30);
    waitFor(client, phaseLimitMs, [&] { return facts.answer != -1; });
    if (task == BrokerTask::LISTEN) {
        mosquitto_subscribe(client.get(), nullptr, keepaliveTopic, 2);
        facts.ended = !waitFor(client, 12000, [&] { return facts.heard || facts.denied; });
    }
    if (task == BrokerTask::PUBLISH) {
        mosquitto_publish_v5(client.get(), nullptr, "lora/veyra", 2, "{}", publishQos, false,
                             nullptr);
        waitFor(client, 2000, [&] { return facts.published != -1; });
    }
    mosquitto_disconnect(client.get());
    return facts;
}
