// A clock and a broker library for tests, linked instead of the real ones. The fake library records
// the clients and their publications, and plays a broker that responds at once.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// The value of monotonicMillis(). sleepMillis() advances it and then calls `afterSleep`.
extern std::uint64_t fakeNowMs;
extern std::function<void()> afterSleep;

// Times are in ms since FakeBroker::startMs.
struct Publication {
    std::uint64_t atMs;
    std::string topic;
    std::string payload;
    int qos = 1;
    bool retained = false;
};

bool operator==(const Publication& left, const Publication& right);

// The calls that one client object of the library received.
struct ClientRecord {
    std::uint64_t createdMs = 0;
    std::vector<std::string> subscriptions;
    int subscriptionQos = 0;
    int disconnects = 0;
    bool threadCancelled = false;
    std::uint64_t destroyedMs = 0;
};

struct FakeBroker {
    // How the broker behaves.
    bool accepts = true; // connections
    bool echoes = true;  // delivers publications on a subscribed topic
    int socket = -1;     // of the connection

    std::uint64_t startMs = 0;
    std::vector<ClientRecord> clients; // in the order of their creation
    std::vector<Publication> publications;
    std::vector<std::string> undeliveredEchoes; // their topics

    // Calls the client's callback, as the network thread does. The worker must not hold mqttLock
    // during this call.
    void deliverEchoes();
    ClientRecord& client() { return clients.back(); }
    std::uint64_t elapsedMs() const { return fakeNowMs - startMs; }
};

extern FakeBroker fakeBroker;
