// Fuzzes the response of the cloud, from its bytes to the parsed value. The transfer is replaced:
// the first byte of the input selects the status, the rest arrives in pieces.
#include "cloud/CloudRequest.h"

#include <ZEP/Logger.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>

namespace {

std::string input;
constexpr std::size_t jsonDepthLimit = 1000; // each level needs at least one byte
std::string* writeTarget = nullptr;

long status() {
    return input.empty() ? 0 : 198 + (input[0] & 7);
}

// The network server must be able to parse the reply. Inside the reply the response is nested one
// level deeper, which may exceed the limit of the JSON library.
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

// libcurl declares the last fixed parameter of these functions as an enumeration.
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

// Creates no list: after an exception the program leaks it on purpose, which the fuzzer would
// report.
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
        std::abort(); // these responses are always accepted
    }
    // After an exception, for example about JSON that is nested too deeply, the mutex stays locked
    // on purpose. The next input needs it.
    pthread_mutex_trylock(curlMutex.native_handle());
    pthread_mutex_unlock(curlMutex.native_handle());
    return 0;
}
