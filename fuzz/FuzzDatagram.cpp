// Fuzzes the handling of a datagram, from its text to the request and the queued reply. The
// function that sends the request is replaced. The replacement reads its arguments like the real
// function and returns the body as the response.
#include "VeyraServer/DatagramRelay.h"
#include "cloud/CloudRequest.h"
#include "common/ProcessState.h"
#include "mqtt/MqttQueue.h"

#include <ZEP/Logger.h>

#include <cstdint>
#include <cstdlib>
#include <mutex>

CURL* cloudCurlHandle = nullptr;

bool sendCloudRequest(CURL* /*handle*/, const std::string& url, Json::Value& body,
                      Json::Value& response, bool /*collectResponse*/, const std::string& method) {
    if (!body.isObject() || body["token"].asString().size() != 64 ||
        body["timestamp"].asString().size() != 27) {
        std::abort();
    }
    response = body;
    // Some requests fail, so that the breaker is used too.
    return Json::FastWriter().write(body).size() > 2 && (url.size() + method.size()) % 8 != 0;
}

// Sometimes true, so that the writer is replaced.
bool takeLargeResponse() {
    static unsigned calls = 0;
    return ++calls % 16 == 0;
}

namespace {

// The network server must be able to parse the reply, which is nested as deep as the datagram.
void emptyQueue() {
    const std::lock_guard<ZEP::Lock> guard(mqttLock);
    for (const auto& message : mqttQueue) {
        Json::Value reply;
        const char* const text = message->payload.data();
        if (!Json::Reader().parse(text, text + message->length, reply, false) ||
            !reply.isMember("path") || !reply.isMember("result")) {
            std::abort();
        }
    }
    mqttQueue.clear();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static DatagramRelay relay{{}, Json::FastWriter(), {10, 5000, 320000}};
    ZEP::Logger::setPrintLevel(0, false);
    const std::string text(reinterpret_cast<const char*>(data), size);
    relay.handleDatagram(text.c_str());
    relay.breaker.failureCount = 0;
    emptyQueue();
    return 0;
}
