// floor-json: the floor with the least that the JSON library must do for a datagram (parse it, add
// two members, write the body, parse the answer, write the reply) and a queue that a second thread
// looks into every 10 ms. With "reset" its libcurl handle is reset after each request and gets its
// options anew, as the daemon's must be.
#include "FloorParts.h"

#include <json/config.h>
#undef JSONCPP_DEPRECATED
#define JSONCPP_DEPRECATED(message)
#include <json/json.h>

#include <sys/socket.h>

#include <ctime>
#include <deque>
#include <mutex>
#include <thread>

namespace {

class Queue {
  public:
    void push(std::string&& payload) {
        const std::lock_guard<std::mutex> guard(mutex);
        payloads.push_back(std::move(payload));
    }

    // False when there is none.
    bool pop(std::string& payload) {
        const std::lock_guard<std::mutex> guard(mutex);
        if (payloads.empty()) {
            return false;
        }
        payload = std::move(payloads.front());
        payloads.pop_front();
        return true;
    }

  private:
    std::mutex mutex;
    std::deque<std::string> payloads;
};

void publishUntilStopped(Queue& queue, FloorBroker& broker) {
    std::string payload;
    while (!stopRequested()) {
        if (queue.pop(payload)) {
            broker.publishReply(payload);
        } else {
            const timespec pause = {0, 10000000};
            nanosleep(&pause, nullptr);
        }
    }
}

class Relay {
  public:
    Relay(const FloorOptions& options, Queue& replies)
        : base(options.baseUrl)
        , queue(replies)
        , cloud(options.reset) {}

    void handle(const char* text, std::size_t length) {
        Json::Value datagram;
        if (!reader.parse(text, text + length, datagram, true)) {
            return;
        }
        const std::string path = datagram["path"].asString();
        char timestamp[timestampLength + 1];
        char token[tokenLength + 1];
        writeTimestamp(timestamp);
        writeToken(token, timestamp, path);
        Json::Value& request = datagram["request"];
        request["timestamp"] = timestamp;
        request["token"] = token;
        const std::string body = writer.write(request);
        const std::string& answer = cloud.post(base + path, body, timestamp, token);
        Json::Value reply;
        reader.parse(answer.data(), answer.data() + answer.size(), reply["result"], true);
        reply["method"] = "POST";
        reply["timestamp"] = timestamp;
        reply["path"] = path;
        std::string message = writer.write(reply);
        message.pop_back(); // the line feed
        queue.push(std::move(message));
    }

  private:
    const std::string base;
    Queue& queue;
    FloorCloud cloud;
    Json::Reader reader;
    Json::FastWriter writer;
};

} // namespace

int main(int argc, char** argv) {
    const FloorOptions options = readFloorOptions(argc, argv);
    FloorBroker broker(options.brokerPort);
    Queue queue;
    Relay relay(options, queue);
    std::thread publisher([&] { publishUntilStopped(queue, broker); });
    static char datagram[16385];
    const int upstream = openUpstream(options.upstreamPort);
    while (!stopRequested()) {
        const ssize_t count = recv(upstream, datagram, sizeof datagram - 1, 0);
        if (count > 0) {
            relay.handle(datagram, static_cast<std::size_t>(count));
        }
    }
    publisher.join();
    return 0;
}
