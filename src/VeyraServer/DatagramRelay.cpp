#include "VeyraServer/DatagramRelay.h"

#include "cloud/CloudRequest.h"
#include "cloud/CloudTimestamp.h"
#include "cloud/RequestToken.h"
#include "common/InputError.h"
#include "common/Log.h"
#include "common/Memory.h"
#include "common/ProcessState.h"
#include "mqtt/MqttQueue.h"

#include <cstring>
#include <string>
#include <utility>

namespace {

// A fixed list of checks. Each `if` is one check with its record.
// NOLINTNEXTLINE(readability-function-cognitive-complexity)
bool parseDatagram(Json::Reader& reader, const char* text, Json::Value& datagram) {
    if (!reader.parse(text, text + std::strlen(text), datagram, true)) {
        VEYRA_LOG(ERROR, "Failed to parse JSON %s", text);
        return false;
    }
    if (datagram.isNull()) {
        VEYRA_LOG(ERROR, "Invalid JSON was nullValue %s", text);
        return false;
    }
    if (!datagram.isObject()) {
        VEYRA_LOG(ERROR, "Expected JSON object %s", text);
        return false;
    }
    if (!datagram.isMember("path") || !datagram.isMember("request")) {
        VEYRA_LOG(ERROR, "Invalid JSON expected \"path\" and \"request\" members.");
        return false;
    }
    return true;
}

// Without this test the JSON library would convert a number to text.
std::string pathOf(const Json::Value& datagram) {
    const Json::Value& path = datagram["path"];
    if (!path.isString()) {
        throw InputError{"\"path\" is not a string"};
    }
    return path.asString();
}

// Without this test the JSON library would convert null to an object.
Json::Value& requestOf(Json::Value& datagram) {
    Json::Value& request = datagram["request"];
    if (!request.isObject()) {
        throw InputError{"\"request\" is not an object"};
    }
    return request;
}

std::string methodOf(const Json::Value& datagram) {
    const Json::Value& method = datagram["method"];
    return method.isString() ? method.asString() : "POST";
}

std::string requestUrl(const std::string& path) {
    return configuration()["network"]["veyraServer"].asString() + path;
}

// Adds the timestamp and the token to the request. Returns the text of the timestamp.
std::string signRequest(Json::Value& request, const std::string& path) {
    CloudTimestamp timestamp{};
    captureUtcTimestamp(timestamp);
    std::string timestampText = formatTimestamp(timestamp);
    request["timestamp"] = timestampText;
    request["token"] = makeRequestToken(gatewaySecret, timestampText, path);
    return timestampText;
}

void queueReply(Json::FastWriter& writer, const Json::Value& reply) {
    const std::string text = writer.write(reply);
    VEYRA_LOG(TRACE, "Curl Response %s", text.c_str());
    const std::size_t withoutLineFeed = text.size() - 1;
    enqueueMqttMessage("", "veyra", text.data(), static_cast<int>(withoutLineFeed));
}

void relay(Json::Value& datagram, Json::FastWriter& writer, CircuitBreaker& breaker) {
    const std::string path = pathOf(datagram);
    VEYRA_LOG(TRACE, "Curl Request %s", requestUrl(path).c_str());
    Json::Value& body = requestOf(datagram);
    const std::string timestampText = signRequest(body, path);
    const std::string method = methodOf(datagram);

    Json::Value response;
    if (!sendCloudRequest(cloudCurlHandle, requestUrl(path), body, response, true, method)) {
        VEYRA_LOG(ERROR, "Curl call failed %s", path.c_str());
        breaker.requestFailed();
        return;
    }
    Json::Value reply;
    reply["result"] = std::move(response);
    reply["method"] = method;
    reply["timestamp"] = timestampText;
    reply["path"] = std::move(datagram["path"]);
    queueReply(writer, reply);
    breaker.requestSucceeded();
}

} // namespace

void DatagramRelay::handleDatagram(const char* text) {
    try {
        Json::Value datagram;
        if (parseDatagram(reader, text, datagram) && breaker.allowsRequest()) {
            relay(datagram, *writer, breaker);
        }
    } catch (...) {
        VEYRA_LOG(ERROR, "EXCEPTION: Failed to parse JSON [%s]", text);
    }
    if (takeLargeResponse()) {
        writer.emplace(); // the old writer still has a buffer of the size of the reply
        releaseFreeMemory();
    }
}
