// The load: datagrams to one subject, and a subscriber that sees what comes of them on the broker.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mosquitto.h>
#include <mutex>
#include <string>

// A datagram of exactly `bytes` bytes, 200 at least, as a network server sends them: packet records
// of a gateway.
std::string packetsDatagram(std::size_t bytes);

std::int64_t nowNs();

// Counts the messages on lora/veyra, and the daemon's keepalives. The broker library's thread
// counts; any thread may ask.
class Subscriber {
  public:
    explicit Subscriber(int brokerPort);

    std::uint64_t count() const { return received; }
    std::uint64_t keepalives() const { return keepalivesReceived; }
    std::int64_t lastArrivalNs() const { return arrivedNs; }
    // False when there are fewer after 20 s.
    bool waitFor(std::uint64_t total);

  private:
    void onMessage(const mosquitto_message& message);

    mosquitto* client;
    std::atomic<std::uint64_t> received{0};
    std::atomic<std::uint64_t> keepalivesReceived{0};
    std::atomic<std::int64_t> arrivedNs{0};
    std::mutex mutex;
    std::condition_variable arrived;
    bool subscribed = false; // under mutex
};

// What the kernel says of a bound UDP port.
struct SocketQueue {
    long bytes; // of memory, taken by waiting datagrams; -1: the port is not bound
    long drops;
};

SocketQueue socketQueue(int port);

// Datagrams of that size that a socket like the daemon's holds while nobody reads it.
unsigned socketCapacity(const std::string& datagram);

class Sender {
  public:
    explicit Sender(int upstreamPort);
    ~Sender();
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

    void send(const std::string& datagram) const;
    // Keeps the subject's socket queue filled, but never full, until `count` datagrams are sent.
    void sendMany(const std::string& datagram, unsigned count) const;

  private:
    int port;
    int descriptor;
};
