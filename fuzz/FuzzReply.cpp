// Fuzzes the cloud's reply from its bytes to the reply object. libcurl's transfer is replaced: the
// first byte of an input chooses the status, the rest arrives in pieces.
#include "cloud/CloudRequest.h"

#include <ZEP/Logger.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>

namespace {

std::string input;
constexpr std::size_t jsonDepthLimit = 1000; // of values inside each other, a byte each at least
std::string* writeTarget = nullptr;

long status() {
    return input.empty() ? 0 : 198 + (input[0] & 7);
}

// The reply goes on to the network server, which has to be able to read it. It stands one level
// deeper there, which may be one too many for the JSON library.
void checkIsReadable(const Json::Value& response) {
    Json::Value reply;
    reply["result"] = response;
    Json::Value again;
    try {
        if (!Json::Reader().parse(Json::FastWriter().write(reply), again, false)) {
            std::abort();
        }
    } catch (const Json::Exception&) {
    }
}

} // namespace

#undef curl_easy_setopt
#undef curl_easy_getinfo

// libcurl declares them with an enumeration before the dots, and so they stand here.
#pragma clang diagnostic ignored "-Wvarargs"

extern "C" {

CURLcode curl_easy_setopt(CURL* /*handle*/, CURLoption option, ...) {
    va_list value;
    va_start(value, option);
    if (option == CURLOPT_WRITEDATA) {
        writeTarget = va_arg(value, std::string*);
    }
    va_end(value);
    return CURLE_OK;
}

CURLcode curl_easy_perform(CURL* /*handle*/) {
    for (std::size_t at = 1; at < input.size();) {
        const std::size_t piece = std::min<std::size_t>(input.size() - at, 1 + at % 97);
        if (appendToString(input.data() + at, 1, piece, writeTarget) != piece) {
            return CURLE_WRITE_ERROR;
        }
        at += piece;
    }
    return CURLE_OK;
}

CURLcode curl_easy_getinfo(CURL* /*handle*/, CURLINFO info, ...) {
    va_list value;
    va_start(value, info);
    *va_arg(value, long*) = status();
    va_end(value);
    return CURLE_OK;
}

void curl_easy_reset(CURL* /*handle*/) {}

// No list is made: the one that an exception leaves behind on purpose would count as a leak.
curl_slist* curl_slist_append(curl_slist* /*list*/, const char* /*text*/) {
    static curl_slist any{};
    return &any;
}

void curl_slist_free_all(curl_slist* /*list*/) {}

} // extern "C"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ZEP::Logger::setPrintLevel(0, false);
    input.assign(reinterpret_cast<const char*>(data), size);
    Json::Value body(Json::objectValue);
    body["token"] = "token";
    Json::Value response;
    if (sendCloudRequest(&input, "https://localhost/api/x", body, response, true, "POST")) {
        checkIsReadable(response);
    } else if ((status() == 200 || status() == 201) && input.size() < jsonDepthLimit) {
        std::abort(); // these are taken, whatever they are
    }
    // After an exception, such as the JSON library's about too many values inside each other, it
    // stays locked on purpose; the next input needs it.
    pthread_mutex_trylock(curlMutex.native_handle());
    pthread_mutex_unlock(curlMutex.native_handle());
    return 0;
}
