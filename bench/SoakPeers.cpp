#include "SoakPeers.h"

#include "Ports.h"

#include "Load.h"

#include <json/json.h>

#include <csignal>
#include <fstream>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Counts lines without holding the whole file.
std::size_t linesWith(const std::string& file, const char* part, const char* otherPart = "") {
    std::ifstream in(file);
    std::size_t count = 0;
    for (std::string line; std::getline(in, line);) {
        const bool counts =
            line.find(part) != std::string::npos && line.find(otherPart) != std::string::npos;
        count += counts ? 1 : 0;
    }
    return count;
}

bool isListening(int port) {
    char entry[48];
    std::snprintf(entry, sizeof entry, ": 0100007F:%04X 00000000:0000 0A ",
                  static_cast<unsigned>(port));
    return fileText("/proc/net/tcp").find(entry) != std::string::npos;
}

} // namespace

int idOfPath(const std::string& path) {
    return static_cast<int>(std::strtol(path.c_str() + path.rfind('/') + 1, nullptr, 10));
}

SoakBroker::SoakBroker(std::string workFolder)
    : port(freePort(SOCK_STREAM))
    , folder(std::move(workFolder)) {
    std::ofstream(folder + "/broker.conf")
        << "listener " << port << " 127.0.0.1\nallow_anonymous true\nmax_queued_messages 0\n"
        << "acl_file " << folder << "/acl\nlog_type all\nlog_dest stderr\n"
        << (geteuid() == 0 ? "user root\n" : "");
    blockEcho(false);
    start();
}

void SoakBroker::start() {
    process = std::make_unique<Process>(MOSQUITTO_PROGRAM " -c " + folder + "/broker.conf",
                                        folder + "/broker.out");
    if (!eventually([&] { return isListening(port); })) {
        throw std::runtime_error("the broker did not start: " + process->errors());
    }
}

void SoakBroker::kill() {
    process->end(SIGKILL);
    inEarlierLives = taken();
    process.reset();
}

void SoakBroker::blockEcho(bool blocked) {
    std::ofstream(folder + "/acl") << (blocked ? "topic readwrite lora/veyra\n"
                                                 "topic write lora/veyra_keepalive\n"
                                               : "topic readwrite lora/#\n");
    if (process != nullptr) {
        process->end(SIGHUP, Deadline(0)); // reads the file again
    }
}

SoakBroker::Taken SoakBroker::taken() const {
    Taken sum = inEarlierLives;
    if (process != nullptr) {
        const std::string log = folder + "/broker.out.err";
        sum.messages += linesWith(log, "Received PUBLISH from VEYRA_SERVER (d", "'lora/veyra',");
        sum.again += linesWith(log, "Received PUBLISH from VEYRA_SERVER (d1", "'lora/veyra',");
    }
    return sum;
}

SoakCloud::SoakCloud(const std::string& folder)
    : outputFile(folder + "/" + outputName)
    , process(CLOUD_PROGRAM " --certificate " + folder + "/certificates/cloud.pem --key " + folder +
                  "/certificates/cloud.key --secret 00112233-4455-6677-8899-aabbccddeeffdevice",
              outputFile) {
    if (!eventually([&] { return linesWith(outputFile, "listening on ") == 1; })) {
        throw std::runtime_error("the cloud did not start: " + process.errors());
    }
}

void SoakCloud::command(const std::string& text) {
    process.say(text);
    ++commands;
    if (!eventually([&] { return linesWith(outputFile, "fault: ") >= commands; })) {
        throw std::runtime_error("the cloud did not take the command " + text);
    }
}

int SoakCloud::port() const {
    std::ifstream in(outputFile);
    std::string listening;
    std::string on;
    int number = 0;
    in >> listening >> on >> number;
    return number;
}

SoakSubscriber::SoakSubscriber(int brokerPort) {
    mosquitto_lib_init();
    client = mosquitto_new(nullptr, true, this);
    mosquitto_connect_callback_set(client, [](mosquitto* connected, void*, int) {
        mosquitto_subscribe(connected, nullptr, "lora/veyra", 1);
    });
    mosquitto_message_callback_set(client, [](mosquitto*, void* self, const mosquitto_message* m) {
        static_cast<SoakSubscriber*>(self)->onMessage(*m);
    });
    thread = std::thread([this, brokerPort] { run(brokerPort); });
}

SoakSubscriber::~SoakSubscriber() {
    stopping = true;
    thread.join();
    mosquitto_destroy(client);
}

void SoakSubscriber::run(int brokerPort) {
    mosquitto_connect(client, "127.0.0.1", brokerPort, 60);
    while (!stopping) {
        if (mosquitto_loop(client, 100, 1) != MOSQ_ERR_SUCCESS) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            mosquitto_reconnect(client);
        }
    }
}

void SoakSubscriber::onMessage(const mosquitto_message& message) {
    const auto* text = static_cast<const char*>(message.payload);
    Json::Value reply;
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    reader->parse(text, text + message.payloadlen, &reply, nullptr);
    const std::lock_guard<std::mutex> guard(mutex);
    arrived.push_back(idOfPath(reply["path"].asString()));
}

std::vector<int> SoakSubscriber::ids() const {
    const std::lock_guard<std::mutex> guard(mutex);
    return arrived;
}

bool SoakSubscriber::has(int id) const {
    const std::lock_guard<std::mutex> guard(mutex);
    return !arrived.empty() && arrived.back() >= id;
}
