#include "mqtt/BrokerWorker.h"

#include "common/Clock.h"
#include "common/Exception.h"
#include "common/Log.h"
#include "common/ProcessState.h"
#include "mqtt/LinkHealth.h"
#include "mqtt/Mosquitto.h"
#include "mqtt/MqttQueue.h"

#include <csignal>
#include <mutex>
#include <string>
#include <unistd.h>
#include <utility>

namespace {

// Sanitizers need far more stack than the code that they instrument.
#ifdef VEYRA_SANITIZED
constexpr unsigned workerStackBytes = 1024 * 1024;
#else
constexpr unsigned workerStackBytes = 32708;
#endif

// Kept on purpose: this variable is never assigned, so the worker closes descriptor 0 when it ends
// and after each exception. A second exception would close a file that has received the number 0
// since then.
int sharedSocket = 0;

// The stack of this thread is too small for the signal handler and its log record.
void leaveStopSignalsToOthers() {
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
}

void publishKeepalive(std::uint64_t passMs) {
    if (mqttClient != nullptr) {
        mqttClient->publish(nullptr, keepaliveTopic, 0, nullptr, publishQos, false);
    }
    lastKeepaliveSent = passMs;
}

bool clientIsConnected() {
    return mqttClient != nullptr && mqttClient->isConnected();
}

void destroyClient() {
    if (mqttClient != nullptr) {
        mqttClient->disconnect();
        delete mqttClient;
        mqttClient = nullptr;
    }
}

// Takes about 9 s; queued messages wait. Does not reset lastKeepalive: the new client is healthy
// only if the echo of its own keepalive arrives before the next check.
void rebuildClient(std::uint64_t passMs) {
    destroyClient();
    sleepMillis(1000);
    mqttClient = createMqttClient();
    if (mqttClient == nullptr) {
        VEYRA_LOG(ERROR, "Failed to create MQTT client, exiting application");
        shutdownRequested = 1;
    }
    sleepMillis(2000);
    {
        const std::lock_guard<ZEP::Lock> guard(mqttLock);
        publishKeepalive(passMs);
    }
    sleepMillis(6000);
}

// Returns whether the link is healthy. An unhealthy one is rebuilt first.
bool superviseLink() {
    const std::uint64_t nowMs = monotonicMillis();
    std::uint64_t heardMs = 0;
    {
        const std::lock_guard<ZEP::Lock> guard(mqttLock);
        if (keepaliveIsDue(nowMs, lastKeepaliveSent)) {
            publishKeepalive(nowMs);
        }
        if (linkIsHealthy(clientIsConnected(), nowMs, lastKeepalive)) {
            return true;
        }
        heardMs = lastKeepalive;
    }
    VEYRA_LOG(DEBUG, "MQTT disconnected NET: %d VEYRA: %d Connected: %d Keepalive: %llu.",
              static_cast<int>(roleNet), static_cast<int>(roleVeyra),
              static_cast<int>(clientIsConnected()),
              static_cast<unsigned long long>(nowMs - heardMs));
    rebuildClient(nowMs);
    return false;
}

void publish(const MqttMessage& message) {
    if (mqttClient == nullptr) {
        return;
    }
    const std::string topic = "lora/" + message.topic;
    mqttClient->publish(nullptr, topic.c_str(), message.length, message.payload.data(), publishQos,
                        false);
}

// Removes the first message of the queue and publishes it. Returns false when the queue is empty.
bool publishFront() {
    std::unique_lock<ZEP::Lock> lock(mqttLock);
    if (mqttQueue.empty()) {
        return false;
    }
    const std::unique_ptr<MqttMessage> message = std::move(mqttQueue.front());
    mqttQueue.pop_front();
    if (message == nullptr) {
        VEYRA_LOG(WARNING, "NULL message pulled from mqtt queue");
        return true;
    }
    try {
        publish(*message);
    } catch (const Exception&) {
        lock.release(); // kept on purpose: mqttLock stays locked
        throw;
    }
    return true;
}

void runPass(bool supervise) {
    if (supervise && !superviseLink()) {
        return;
    }
    if (!publishFront()) {
        sleepMillis(10);
    }
}

void runPassesUntilStopped(bool supervise) {
    try {
        while (!shutdownRequested) {
            runPass(supervise);
        }
    } catch (const Exception& exception) {
        VEYRA_LOG(ERROR, "%s", exceptionRecord("MQTT Thread Msg exception : ", exception).c_str());
    }
    if (sharedSocket != -1) {
        close(sharedSocket);
    }
    sleepMillis(100);
}

} // namespace

ThreadDescriptor brokerWorker = {workerStackBytes, {}, 0, MqttThreadFunction};

int startThread(ThreadDescriptor& descriptor) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    // Fails on arm64, where the C library requires 128 KiB. The default stack is then used.
    pthread_attr_setstacksize(&attributes, descriptor.stackSize);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    return pthread_create(&descriptor.threadId, &attributes, descriptor.startRoutine, nullptr);
}

void* MqttThreadFunction(void* /*argument*/) {
    leaveStopSignalsToOthers();
    {
        const std::lock_guard<ZEP::Lock> guard(mqttLock);
        lastKeepalive = monotonicMillis();
    }
    const bool supervise = configuration()["mqtt"]["enabled"].asBool();
    sleepMillis(100);
    while (!shutdownRequested) {
        runPassesUntilStopped(supervise);
    }
    return nullptr;
}
