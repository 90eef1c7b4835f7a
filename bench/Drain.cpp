// How fast the broker worker empties its queue, by length: the daemon's own worker, client and
// queue, with a real broker and a subscriber.
//
//   drain FOLDER, which takes the broker's files
#include "Load.h"
#include "Subject.h"
#include "common/ProcessState.h"
#include "mqtt/Mosquitto.h"
#include "mqtt/MqttQueue.h"
#include "mqtt/MqttThread.h"

#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <unistd.h>

namespace {

// Milliseconds until the last of them is with the subscriber.
double drain(Subscriber& replies, unsigned count) {
    const std::uint64_t target = replies.count() + count;
    const std::string payload(300, 'p');
    std::int64_t startNs = 0;
    {
        // All at once: the worker waits for the lock meanwhile.
        const std::lock_guard<ZEP::Lock> guard(mqttLock);
        for (unsigned i = 0; i < count; ++i) {
            auto message = std::make_unique<MqttMessage>();
            message->payload = std::make_unique<char[]>(payload.size() + 1);
            payload.copy(message->payload.get(), payload.size());
            message->length = static_cast<std::int32_t>(payload.size());
            message->topic = "veyra";
            mqttQueue.push_back(std::move(message));
        }
        startNs = nowNs();
    }
    if (!replies.waitFor(target)) {
        throw std::runtime_error("messages were lost");
    }
    return static_cast<double>(replies.lastArrivalNs() - startNs) / 1e6;
}

void run(const std::string& folder) {
    const Peers peers(folder);
    Subscriber replies(peers.brokerPort);
    Json::Value& mqtt = configurationForStartup()["mqtt"];
    mqtt["enabled"] = true;
    mqtt["host"] = "127.0.0.1";
    mqtt["port"] = peers.brokerPort;
    roleVeyra = true;
    mqttClient = createMqttClient();
    if (!eventually([] { return mqttClient->isConnected(); }) || startThread(mqttThread) != 0) {
        throw std::runtime_error("the worker did not start");
    }
    eventually([] { return false; }, Deadline(500)); // the worker pauses before its first pass
    std::puts("| queued | drained in, ms | messages/s |\n|---|---|---|");
    for (const unsigned count : {100U, 1000U, 10000U, 100000U, 100U, 100000U}) {
        const double ms = drain(replies, count);
        std::printf("| %u | %.1f | %.0f |\n", count, ms, count / ms * 1000);
    }
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv) {
    try {
        run(argc == 2 ? argv[1] : throw std::runtime_error("usage: drain FOLDER"));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "drain: %s\n", error.what());
        _exit(1);
    }
    _exit(0); // the worker runs on
}
