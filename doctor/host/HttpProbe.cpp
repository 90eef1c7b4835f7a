#include "host/HttpProbe.h"

#include "cloud/CloudRequest.h"
#include "cloud/CloudTimestamp.h"
#include "cloud/RequestToken.h"
#include "host/Text.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <stdexcept>
#include <strings.h>
#include <sys/socket.h>

namespace {

using Handle = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;
using ErrorText = std::array<char, CURL_ERROR_SIZE>;

template <typename Value>
Value infoOf(const Handle& handle, CURLINFO info) {
    Value value{};
    curl_easy_getinfo(handle.get(), info, &value);
    return value;
}

std::string valueOf(const std::string& line) {
    const auto start = line.find_first_not_of(" \t", line.find(':') + 1);
    const auto end = line.find_last_not_of("\r\n \t");
    if (start == std::string::npos || end < start) {
        return {};
    }
    return line.substr(start, end + 1 - start);
}

// Parsed here, because the time type of libcurl may have 32 bits although this program uses 64.
void takeDate(const std::string& value, HttpAnswer& answer) {
    std::tm utc{};
    if (strptime(value.c_str(), "%a, %d %b %Y %H:%M:%S", &utc) != nullptr) {
        answer.date = timegm(&utc);
        answer.dateTaken = std::time(nullptr);
    }
}

// libcurl header callback. Headers must be saved here: the daemon's request function resets the
// handle when it returns.
std::size_t takeHeader(char* data, std::size_t size, std::size_t count, HttpAnswer* answer) {
    const std::string line(data, size * count);
    const auto has = [&](const char* name) {
        return strncasecmp(line.c_str(), name, std::strlen(name)) == 0;
    };
    if (has("HTTP/")) {
        const char* const status = line.c_str() + std::min(line.find(' '), line.size());
        answer->status = std::strtol(status, nullptr, 10);
    } else if (has("Date:")) {
        takeDate(valueOf(line), *answer);
    } else if (has("Age:")) {
        constexpr long longestS = 7L * 86400; // a larger value is not plausible
        answer->ageS = std::clamp(std::strtol(valueOf(line).c_str(), nullptr, 10), 0L, longestS);
    } else if (has("Content-Type:")) {
        answer->contentType = valueOf(line);
    } else if (has("Location:")) {
        answer->location = valueOf(line);
    }
    return size * count;
}

// libcurl socket callback: notes each address that is tried.
curl_socket_t openSocket(HttpAnswer* answer, curlsocktype /*purpose*/, curl_sockaddr* address) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    getnameinfo(&address->addr, address->addrlen, text.data(), text.size(), nullptr, 0,
                NI_NUMERICHOST);
    addItem(answer->addresses, text.data());
    return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

// libcurl write callback. Without it, libcurl writes the body to standard output.
std::size_t discard(char* /*data*/, std::size_t size, std::size_t count, void* /*given*/) {
    return size * count;
}

// The service user chooses the URL. With other protocols, libcurl would send standard input to the
// server, or write to the terminal.
void allowOnlyHttp(CURL* handle) {
    if (curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https") != CURLE_OK) {
        throw std::runtime_error("this libcurl cannot limit requests to http and https");
    }
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, discard);
}

Handle makeHandle(ErrorText& error, long limitMs, HttpAnswer& answer) {
    Handle handle(curl_easy_init(), curl_easy_cleanup);
    allowOnlyHttp(handle.get());
    curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_QUICK_EXIT, 1L); // does not wait for a silent resolver
    curl_easy_setopt(handle.get(), CURLOPT_ERRORBUFFER, error.data());
    curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT_MS, std::max(limitMs, 1L));
    curl_easy_setopt(handle.get(), CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L); // those of the proxy
    curl_easy_setopt(handle.get(), CURLOPT_HEADERFUNCTION, takeHeader);
    curl_easy_setopt(handle.get(), CURLOPT_HEADERDATA, &answer);
    curl_easy_setopt(handle.get(), CURLOPT_OPENSOCKETFUNCTION, openSocket);
    curl_easy_setopt(handle.get(), CURLOPT_OPENSOCKETDATA, &answer);
    return handle;
}

// The trust is set by the daemon's own function.
Handle makeHead(const std::string& url, ErrorText& error, long limitMs, HttpAnswer& answer) {
    Handle handle = makeHandle(error, limitMs, answer);
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_NOBODY, 1L);
    setTrust(handle.get(), url);
    return handle;
}

// The serial number in a path such as m1/gateways/SN0042/check_in.
std::string serialIn(const std::string& path) {
    constexpr const char* prefix = "gateways/";
    const auto name = path.find(prefix);
    if (name == std::string::npos) {
        return {};
    }
    const auto start = name + std::strlen(prefix);
    return path.substr(start, path.find('/', start) - start);
}

} // namespace

HttpAnswer askCloud(const std::string& url, long limitMs) {
    HttpAnswer answer;
    ErrorText error{};
    const Handle handle = makeHead(url, error, limitMs, answer);
    answer.code = curl_easy_perform(handle.get());
    const char* const scheme = infoOf<const char*>(handle, CURLINFO_SCHEME);
    const bool isHttps = scheme != nullptr && strcasecmp(scheme, "https") == 0;
    answer.isUnverified = !isHttps || !isVerified(url);
    if (answer.code != CURLE_OK) {
        answer.error = error[0] == 0 ? curl_easy_strerror(answer.code) : error.data();
        answer.systemError = static_cast<int>(infoOf<long>(handle, CURLINFO_OS_ERRNO));
    }
    answer.verifyResult = infoOf<long>(handle, CURLINFO_SSL_VERIFYRESULT);
    answer.isResolved = infoOf<double>(handle, CURLINFO_NAMELOOKUP_TIME) > 0;
    answer.isConnected = infoOf<long>(handle, CURLINFO_LOCAL_PORT) != 0;
    answer.isEncrypted = infoOf<double>(handle, CURLINFO_APPCONNECT_TIME) > 0;
    return answer;
}

long askSigned(const std::string& url, const std::string& path, const std::string& secret,
               long limitMs) {
    ErrorText error{};
    HttpAnswer answer;
    const Handle handle = makeHandle(error, limitMs, answer);
    curl_easy_setopt(handle.get(), CURLOPT_MAXREDIRS, 0L); // the signature is for this host alone
    CloudTimestamp now{};
    captureUtcTimestamp(now);
    Json::Value body;
    Json::Value response;
    body["brantle_serial"] = serialIn(path);
    body["timestamp"] = formatTimestamp(now);
    body["token"] = makeRequestToken(secret, formatTimestamp(now), path);
    sendCloudRequest(handle.get(), url + path, body, response, true, "GET");
    return answer.status;
}

std::vector<Certificate> lookAtCertificates(const std::string& url, long limitMs,
                                            HttpAnswer& answer) {
    ErrorText error{};
    const Handle handle = makeHead(url, error, limitMs, answer);
    answer.isUnverified = true;
    curl_easy_setopt(handle.get(), CURLOPT_CERTINFO, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(handle.get(), CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_perform(handle.get());
    std::string pem;
    const auto* const chain = infoOf<curl_certinfo*>(handle, CURLINFO_CERTINFO);
    for (int index = 0; chain != nullptr && index < chain->num_of_certs; ++index) {
        for (const curl_slist* item = chain->certinfo[index]; item != nullptr; item = item->next) {
            const std::string line = item->data;
            if (line.rfind("Cert:", 0) == 0) {
                pem += line.substr(5) + "\n";
            }
        }
    }
    return certificatesIn(pem);
}

std::string hostOf(const std::string& url) {
    const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parts(curl_url(), curl_url_cleanup);
    curl_url_set(parts.get(), CURLUPART_URL, url.c_str(), CURLU_DEFAULT_SCHEME);
    char* text = nullptr;
    if (curl_url_get(parts.get(), CURLUPART_HOST, &text, 0) != CURLUE_OK) {
        return {};
    }
    std::string host = text;
    curl_free(text);
    return host;
}

bool speaksTls(const std::string& host, int port, long limitMs) {
    ErrorText error{};
    HttpAnswer answer;
    const Handle handle = makeHandle(error, limitMs, answer);
    const bool isIpv6 = host.find(':') != std::string::npos;
    const std::string url =
        "https://" + (isIpv6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_CONNECT_ONLY, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_PROXY, "");
    curl_easy_setopt(handle.get(), CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(handle.get(), CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_perform(handle.get());
    return infoOf<double>(handle, CURLINFO_APPCONNECT_TIME) > 0;
}
