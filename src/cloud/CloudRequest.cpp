#include "cloud/CloudRequest.h"

#include "common/Log.h"
#include "common/Memory.h"

#include <new>
#include <utility>

CURL* cloudCurlHandle = nullptr;
pthread_mutex_t curlMutex = PTHREAD_MUTEX_INITIALIZER;
std::string gatewaySerial;

namespace {

bool largeAnswer = false; // main thread only

// A request with a header missing must not go out. Memory is all that libcurl can lack here.
curl_slist* append(curl_slist* headers, const char* header) {
    curl_slist* const longer = curl_slist_append(headers, header);
    if (longer == nullptr) {
        throw std::bad_alloc();
    }
    return longer;
}

// Nor may one go out with an option missing, such as the authority that is trusted. Other results
// tell that this libcurl was built without what the option switches.
void require(CURLcode result) {
    if (result == CURLE_OUT_OF_MEMORY) {
        throw std::bad_alloc();
    }
}

// libcurl leaves a header out when only white space follows the colon; a semicolon in the colon's
// place is its spelling for "send it empty".
curl_slist* appendHeader(curl_slist* headers, std::string name, const std::string& value) {
    const bool empty = value.find_first_not_of(" \t\n\v\f\r") == std::string::npos;
    name.reserve(name.size() + 2 + value.size());
    name += empty ? ";" : ": ";
    if (!empty) {
        name += value;
    }
    return append(headers, name.c_str());
}

// Moves a member of `body` into the headers; without one, `headers` stays as it is.
curl_slist* takeMember(curl_slist* headers, Json::Value& body, const char* member,
                       const char* name) {
    Json::Value value;
    return body.removeMember(member, &value) ? appendHeader(headers, name, value.asString())
                                             : headers;
}

// The list is the caller's to free; an exception on the way leaves it behind (see the end of
// sendCloudRequest).
curl_slist* buildHeaders(Json::Value& body) {
    curl_slist* headers = append(nullptr, "Accept: application/json");
    headers = append(headers, "Content-Type: application/json");
    headers = append(headers, "charsets: utf-8");
    Json::Value serial;
    const bool hasSerial = body.removeMember("brantle_serial", &serial);
    headers = appendHeader(headers, "X-API-SERIAL", hasSerial ? serial.asString() : gatewaySerial);
    headers = takeMember(headers, body, "token", "X-API-HASH");
    return takeMember(headers, body, "timestamp", "X-API-TIMESTAMP");
}

void setTransferOptions(CURL* handle, const std::string& url, curl_slist* headers,
                        std::string* received) {
    require(curl_easy_setopt(handle, CURLOPT_URL, url.c_str()));
    require(curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L));
    require(curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L));
    if (received != nullptr) {
        require(curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, appendToString));
        require(curl_easy_setopt(handle, CURLOPT_WRITEDATA, received));
    }
    require(curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers));
    setTrust(handle, url);
}

// The writer keeps its buffer from one request to the next.
std::string compactText(const Json::Value& body) {
    static Json::FastWriter writer; // under curlMutex
    return writer.write(body);
}

// libcurl keeps a pointer to the body: `bodyText` must outlive the transfer.
void setBody(CURL* handle, const std::string& method, const std::string& bodyText) {
    VEYRA_LOG(TRACE, "request body: %s", bodyText.c_str());
    if (method == "PUT") {
        require(curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, "PUT"));
        require(curl_easy_setopt(handle, CURLOPT_POSTFIELDS, bodyText.c_str()));
    } else if (method != "GET") {
        require(curl_easy_setopt(handle, CURLOPT_POST, 1L));
        require(curl_easy_setopt(handle, CURLOPT_POSTFIELDS, bodyText.c_str()));
    }
    require(curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, ""));
}

// A reader keeps its largest buffers, so a large answer gets one of its own.
bool parseText(const char* text, std::size_t length, Json::Value& response) {
    static Json::Reader lasting; // under curlMutex
    return length < largeBytes ? lasting.parse(text, text + length, response, true)
                               : Json::Reader().parse(text, text + length, response, true);
}

// The answer's text ends at its first NUL byte.
void parseResponse(const std::string& method, int status, const std::string& received,
                   Json::Value& response) {
    const char* text = received.c_str();
    if (parseText(text, std::char_traits<char>::length(text), response)) {
        VEYRA_LOG(TRACE, "%s code: %d response:[%s]", method.c_str(), status, text);
    } else {
        VEYRA_LOG(TRACE, "%s code: %d Unable parse text as JSON [%s]", method.c_str(), status,
                  text);
        response = Json::Value();
    }
}

bool handleStatus(CURL* handle, const std::string& method, const std::string& received,
                  Json::Value& response) {
    long code = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &code);
    const int status = static_cast<int>(code);
    if (static_cast<unsigned>(status) - 200U > 1U) {
        VEYRA_LOG(ERROR, "%s failed CODE:%d BODY:[%s]", method.c_str(), status, received.c_str());
        return false;
    }
    parseResponse(method, status, received, response);
    return true;
}

} // namespace

bool isVerified(const std::string& url) {
    return url.find("https:") != std::string::npos;
}

void setTrust(CURL* handle, const std::string& url) {
    if (isVerified(url)) {
        require(curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L));
        require(curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L));
        require(curl_easy_setopt(handle, CURLOPT_CAINFO, cloudCaFile));
        // libcurl may be built with a folder of authorities, which it would trust besides the file.
        require(curl_easy_setopt(handle, CURLOPT_CAPATH, nullptr));
    }
}

bool takeLargeAnswer() {
    return std::exchange(largeAnswer, false);
}

std::size_t appendToString(char* data, std::size_t size, std::size_t nmemb, std::string* buffer) {
    try {
        buffer->append(data, size * nmemb);
    } catch (const std::bad_alloc&) {
        return 0;
    }
    return size * nmemb;
}

bool sendCloudRequest(CURL* handle, const std::string& url, Json::Value& body,
                      Json::Value& response, bool collectResponse, const std::string& method) {
    response = Json::Value();
    if (handle == nullptr) {
        return false;
    }
    std::string received;
    pthread_mutex_lock(&curlMutex);
    try {
        curl_slist* headers = buildHeaders(body);
        VEYRA_LOG(TRACE, "Server URL: [%s]", url.c_str());
        setTransferOptions(handle, url, headers, collectResponse ? &received : nullptr);
        const std::string bodyText = compactText(body);
        setBody(handle, method, bodyText);

        bool accepted = false;
        const CURLcode result = curl_easy_perform(handle);
        largeAnswer = largeAnswer || received.size() >= largeBytes;
        if (result != CURLE_OK) {
            VEYRA_LOG(ERROR, "CURL call to Server failed - %s", curl_easy_strerror(result));
        } else {
            accepted = handleStatus(handle, method, received, response);
        }
        curl_slist_free_all(headers);
        curl_easy_reset(handle);
        pthread_mutex_unlock(&curlMutex);
        return accepted;
    } catch (...) {
        // Kept on purpose: the lock stays taken, the header list unfreed and the handle's options
        // set. The next request waits for ever.
        VEYRA_LOG(ERROR, "Exception caught during CURL call to [%s]", url.c_str());
        return false;
    }
}
