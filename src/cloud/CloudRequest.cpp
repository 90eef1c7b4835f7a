#include "cloud/CloudRequest.h"

#include "common/Log.h"
#include "common/Memory.h"

#include <new>
#include <stdexcept>
#include <utility>

CURL* cloudCurlHandle = nullptr;
std::mutex curlMutex;
std::string gatewaySerial;

namespace {

bool largeResponse = false; // main thread only

// Throws std::bad_alloc when there is no memory: a request must not be sent if any of its headers
// is missing.
curl_slist* append(curl_slist* headers, const char* header) {
    curl_slist* const longer = curl_slist_append(headers, header);
    if (longer == nullptr) {
        throw std::bad_alloc();
    }
    return longer;
}

// Throws when an option could not be set because memory is exhausted: the request must not be sent
// without it. Other errors are ignored: a libcurl that was built without a feature rejects the
// options that control this feature.
void requireMemory(CURLcode result) {
    if (result == CURLE_OUT_OF_MEMORY) {
        throw std::bad_alloc();
    }
}

// No error may be ignored for the options that decide which server is trusted.
void requireSuccess(CURLcode result) {
    if (result != CURLE_OK) {
        throw std::runtime_error(curl_easy_strerror(result));
    }
}

// libcurl omits a header if only white space follows the colon. A semicolon instead of the colon
// makes it send the header with an empty value.
curl_slist* appendHeader(curl_slist* headers, std::string name, const std::string& value) {
    const bool empty = value.find_first_not_of(" \t\n\v\f\r") == std::string::npos;
    name.reserve(name.size() + 2 + value.size());
    name += empty ? ";" : ": ";
    if (!empty) {
        name += value;
    }
    return append(headers, name.c_str());
}

// Moves a member of `body` into a header. Adds no header when `body` does not have the member.
curl_slist* takeMember(curl_slist* headers, Json::Value& body, const char* member,
                       const char* name) {
    Json::Value value;
    if (!body.removeMember(member, &value)) {
        return headers;
    }
    return appendHeader(headers, name, value.asString());
}

// The caller frees the list. An exception leaks the list: see the end of sendCloudRequest.
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
    requireMemory(curl_easy_setopt(handle, CURLOPT_URL, url.c_str()));
    requireMemory(curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L));
    requireMemory(curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L));
    if (received != nullptr) {
        requireMemory(curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, appendToString));
        requireMemory(curl_easy_setopt(handle, CURLOPT_WRITEDATA, received));
    }
    requireMemory(curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers));
    setTrust(handle, url);
}

std::string compactText(const Json::Value& body) {
    static Json::FastWriter writer; // keeps its buffer; guarded by curlMutex
    return writer.write(body);
}

// `bodyText` must outlive the transfer: libcurl does not copy it.
void setBody(CURL* handle, const std::string& method, const std::string& bodyText) {
    VEYRA_LOG(TRACE, "request body: %s", bodyText.c_str());
    if (method == "PUT") {
        requireMemory(curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, "PUT"));
        requireMemory(curl_easy_setopt(handle, CURLOPT_POSTFIELDS, bodyText.c_str()));
    } else if (method != "GET") {
        requireMemory(curl_easy_setopt(handle, CURLOPT_POST, 1L));
        requireMemory(curl_easy_setopt(handle, CURLOPT_POSTFIELDS, bodyText.c_str()));
    }
    requireMemory(curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, ""));
}

bool parseText(const char* text, std::size_t length, Json::Value& response) {
    if (length >= largeBytes) { // the permanent reader would keep its large buffers
        return Json::Reader().parse(text, text + length, response, true);
    }
    static Json::Reader lasting; // guarded by curlMutex
    return lasting.parse(text, text + length, response, true);
}

// The text of the response ends at its first NUL byte.
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

bool isSuccess(int status) {
    return status == 200 || status == 201;
}

bool handleStatus(CURL* handle, const std::string& method, const std::string& received,
                  Json::Value& response) {
    long code = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &code);
    const int status = static_cast<int>(code);
    if (!isSuccess(status)) {
        VEYRA_LOG(ERROR, "%s failed CODE:%d BODY:[%s]", method.c_str(), status, received.c_str());
        return false;
    }
    parseResponse(method, status, received, response);
    return true;
}

bool performTransfer(CURL* handle, const std::string& method, const std::string& received,
                     Json::Value& response) {
    const CURLcode result = curl_easy_perform(handle);
    largeResponse = largeResponse || received.size() >= largeBytes;
    if (result != CURLE_OK) {
        VEYRA_LOG(ERROR, "CURL call to Server failed - %s", curl_easy_strerror(result));
        return false;
    }
    return handleStatus(handle, method, received, response);
}

} // namespace

bool isVerified(const std::string& url) {
    return url.find("https:") != std::string::npos;
}

void setTrust(CURL* handle, const std::string& url) {
    if (isVerified(url)) {
        requireSuccess(curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L));
        requireSuccess(curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L));
        requireSuccess(curl_easy_setopt(handle, CURLOPT_CAINFO, cloudCaFile));
        // Some builds of libcurl also trust a directory of CA certificates. The others do not know
        // such directories and may reject this option.
        requireMemory(curl_easy_setopt(handle, CURLOPT_CAPATH, nullptr));
    }
}

bool takeLargeResponse() {
    return std::exchange(largeResponse, false);
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
    std::unique_lock<std::mutex> lock(curlMutex);
    try {
        curl_slist* headers = buildHeaders(body);
        VEYRA_LOG(TRACE, "Server URL: [%s]", url.c_str());
        setTransferOptions(handle, url, headers, collectResponse ? &received : nullptr);
        const std::string bodyText = compactText(body);
        setBody(handle, method, bodyText);
        const bool accepted = performTransfer(handle, method, received, response);
        curl_slist_free_all(headers);
        curl_easy_reset(handle);
        return accepted;
    } catch (...) {
        // Kept on purpose: the mutex stays locked, the header list is not freed and the handle
        // keeps its options. The next request never returns.
        lock.release();
        VEYRA_LOG(ERROR, "Exception caught during CURL call to [%s]", url.c_str());
        return false;
    }
}
