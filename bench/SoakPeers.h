// The daemon's peers in the soak test, with the faults that its schedule asks for: a broker that
// dies, comes back and keeps the keepalive's echo to itself, the stand-in cloud, and a subscriber
// that is back before the daemon is.
#pragma once

#include "Process.h"

#include <atomic>
#include <memory>
#include <mosquitto.h>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// A datagram's id, which is the last part of its path.
int idOfPath(const std::string& path);

class SoakBroker {
  public:
    explicit SoakBroker(std::string workFolder);

    void start();
    void kill();
    // Blocked, the broker takes keepalives and delivers none.
    void blockEcho(bool blocked);
    // Messages on lora/veyra that it took from the daemon, in all its lives so far; again: those
    // of them that were marked as sent before.
    struct Taken {
        std::size_t messages;
        std::size_t again;
    };
    Taken taken() const;

    const int port;

  private:
    const std::string folder;
    std::unique_ptr<Process> process;
    Taken inEarlierLives{0, 0};
};

class SoakCloud {
  public:
    explicit SoakCloud(const std::string& folder);

    // One of the commands of the stand-in cloud; waits until it is in force.
    void command(const std::string& text);
    int port() const;

    static constexpr const char* outputName = "cloud.out";

  private:
    const std::string outputFile;
    Process process;
    std::size_t commands = 0;
};

// Keeps the ids of the datagrams that were answered in the order of their arrival. Connects again
// within milliseconds.
class SoakSubscriber {
  public:
    explicit SoakSubscriber(int brokerPort);
    ~SoakSubscriber();
    SoakSubscriber(const SoakSubscriber&) = delete;
    SoakSubscriber& operator=(const SoakSubscriber&) = delete;

    std::vector<int> ids() const;
    bool has(int id) const;

  private:
    void run(int brokerPort);
    void onMessage(const mosquitto_message& message);

    mosquitto* client;
    mutable std::mutex mutex;
    std::vector<int> arrived; // under mutex
    std::atomic<bool> stopping{false};
    std::thread thread;
};
