#include "Load.h"

#include "Ports.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <stdexcept>

namespace {

std::string readText(const char* path) {
    std::string text(1 << 16, '\0');
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    std::size_t length = 0;
    for (ssize_t count = 1; count > 0 && length < text.size();
         length += static_cast<std::size_t>(count)) {
        count = std::max<ssize_t>(read(file, text.data() + length, text.size() - length), 0);
    }
    close(file);
    text.resize(length);
    return text;
}

void pauseMicros(long micros) {
    const timespec pause = {0, micros * 1000};
    nanosleep(&pause, nullptr);
}

} // namespace

std::string packetsDatagram(std::size_t bytes) {
    const std::string record = R"({"freq":868.1,"sf":7,"rssi":-101,"snr":7.5,"crc":true,)"
                               R"("time":"2026-11-21T04:25:47Z","data":"QAEAACaAAQABq1Yp8w=="},)";
    std::string text = R"({"method":"POST","path":"m1/gateways/SN0000001/packets","request":{)"
                       R"("brantle_serial":"SN0000001","data":{"type":"packets","id":1,)"
                       R"("attributes":{"p":[)";
    const std::string end = R"(]}}}})";
    while (text.size() + record.size() + end.size() + 2 <= bytes) {
        text += record;
    }
    text += '"' + std::string(bytes - text.size() - end.size() - 2, 'x') + '"' + end;
    return text;
}

std::int64_t nowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

Subscriber::Subscriber(int brokerPort) {
    mosquitto_lib_init();
    client = mosquitto_new(nullptr, true, this);
    mosquitto_connect_callback_set(client, [](mosquitto* connected, void*, int) {
        mosquitto_subscribe(connected, nullptr, "lora/+", 0);
    });
    mosquitto_subscribe_callback_set(client, [](mosquitto*, void* self, int, int, const int*) {
        auto& subscriber = *static_cast<Subscriber*>(self);
        const std::lock_guard<std::mutex> guard(subscriber.mutex);
        subscriber.subscribed = true;
        subscriber.arrived.notify_all();
    });
    mosquitto_message_callback_set(client, [](mosquitto*, void* self, const mosquitto_message* m) {
        static_cast<Subscriber*>(self)->onMessage(*m);
    });
    std::unique_lock<std::mutex> lock(mutex);
    if (mosquitto_connect(client, "127.0.0.1", brokerPort, 3600) != MOSQ_ERR_SUCCESS ||
        mosquitto_loop_start(client) != MOSQ_ERR_SUCCESS ||
        !arrived.wait_for(lock, std::chrono::seconds(10), [&] { return subscribed; })) {
        throw std::runtime_error("cannot subscribe");
    }
}

void Subscriber::onMessage(const mosquitto_message& message) {
    if (std::strcmp(message.topic, "lora/veyra") != 0) {
        ++keepalivesReceived;
        return;
    }
    arrivedNs = nowNs();
    // Acknowledged at once, so that the broker never waits with the next message for this end.
    const int on = 1;
    setsockopt(mosquitto_socket(client), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
    const std::lock_guard<std::mutex> guard(mutex);
    ++received;
    arrived.notify_all();
}

bool Subscriber::waitFor(std::uint64_t total) {
    std::unique_lock<std::mutex> lock(mutex);
    return arrived.wait_for(lock, std::chrono::seconds(20), [&] { return received >= total; });
}

SocketQueue socketQueue(int port) {
    char entry[32];
    std::snprintf(entry, sizeof entry, ": 0100007F:%04X ", static_cast<unsigned>(port));
    const std::string table = readText("/proc/net/udp");
    const auto at = table.find(entry);
    if (at == std::string::npos) {
        return {-1, 0};
    }
    const std::string line = table.substr(at, table.find('\n', at) - at);
    const std::string queues = line.substr(line.find(':', line.find("07 ")) + 1);
    const std::string drops = line.substr(line.find_last_of(' ', line.find_last_not_of(' ')) + 1);
    return {std::strtol(queues.c_str(), nullptr, 16), std::strtol(drops.c_str(), nullptr, 10)};
}

unsigned socketCapacity(const std::string& datagram) {
    const int port = freePort(SOCK_DGRAM);
    const int unread = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopbackAddress(port);
    if (bind(unread, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("cannot bind a port");
    }
    const Sender sender(port);
    unsigned sent = 0;
    while (socketQueue(port).drops == 0) {
        sender.send(datagram);
        ++sent;
    }
    close(unread);
    return sent - 1;
}

Sender::Sender(int upstreamPort)
    : port(upstreamPort)
    , descriptor(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_in address = loopbackAddress(port);
    if (connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("no socket to the upstream port");
    }
}

Sender::~Sender() {
    close(descriptor);
}

void Sender::send(const std::string& datagram) const {
    // Refused while the subject has not bound its port yet; the caller sees that no reply comes.
    [[maybe_unused]] const ssize_t sent =
        ::send(descriptor, datagram.data(), datagram.size(), MSG_NOSIGNAL);
}

void Sender::sendMany(const std::string& datagram, unsigned count) const {
    constexpr long wellFilledBytes = 65536;
    const auto batch = static_cast<unsigned>(1 + 16384 / (datagram.size() + 512));
    for (unsigned sent = 0; sent < count;) {
        if (socketQueue(port).bytes > wellFilledBytes) {
            pauseMicros(200);
            continue;
        }
        for (unsigned i = 0; i < batch && sent < count; ++i, ++sent) {
            send(datagram);
        }
    }
}
