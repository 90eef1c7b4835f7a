#include "support/Peers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

namespace {

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int freePort(int type) {
    const int descriptor = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    bind(descriptor, reinterpret_cast<sockaddr*>(&address), length);
    getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length);
    close(descriptor);
    return ntohs(address.sin_port);
}

bool accepts(int port) {
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    const bool connected =
        connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(descriptor);
    return connected;
}

// Whether a UDP socket is bound to the port, looked at without touching it.
bool isBound(int port) {
    char entry[32];
    std::snprintf(entry, sizeof entry, "0100007F:%04X ", static_cast<unsigned>(port));
    return fileText("/proc/net/udp").find(entry) != std::string::npos;
}

// The broker library's thread is started after the upstream port was tested and closed again, and
// before it is opened for good.
bool hasBrokerThread(int pid) {
    std::error_code gone;
    const std::filesystem::directory_iterator tasks("/proc/" + std::to_string(pid) + "/task", gone);
    return std::any_of(begin(tasks), end(tasks), [](const auto& task) {
        return fileText(task.path() / "comm") == "mosquitto loop\n";
    });
}

std::vector<std::string> linesStartingWith(const std::string& text, char first) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line) && !stream.eof();) {
        if (!line.empty() && line[0] == first) {
            lines.push_back(line);
        }
    }
    return lines;
}

std::string certificates() {
    static const TestFolder folder;
    static const int made = std::system(
        (DEMO_FOLDER "/make-certificates.sh " + (folder / "").string() + " > /dev/null 2>&1")
            .c_str());
    EXPECT_EQ(made, 0);
    return (folder / "").string();
}

std::vector<std::string> subscriberCommand(const Broker& broker,
                                           const std::vector<std::string>& options) {
    // Line by line, since it writes to a file.
    std::vector<std::string> command = {
        "stdbuf",    "-oL", MOSQUITTO_SUB_PROGRAM,       "-d", "-h",
        "127.0.0.1", "-p",  std::to_string(broker.port), "-t", "lora/veyra",
        "-q",        "1"};
    command.insert(command.end(), options.begin(), options.end());
    return command;
}

std::vector<std::string> daemonCommand(const DaemonSetup& setup) {
    std::filesystem::create_directories(setup.folder / "run/config");
    std::ofstream(setup.folder / "daemon.conf") << setup.configuration.toStyledString();
    std::vector<std::string> command = {DEMO_FOLDER "/with-ca.sh",
                                        certificates() + "ca.pem",
                                        setup.program,
                                        "-c",
                                        setup.folder / "daemon.conf",
                                        "-l",
                                        setup.folder / "daemon.log",
                                        "--var-run",
                                        setup.folder / "run"};
    command.insert(command.end(), setup.options.begin(), setup.options.end());
    return command;
}

} // namespace

TestFolder::TestFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "veyra-test-XXXXXX").string();
    path = mkdtemp(name.data());
}

TestFolder::~TestFolder() {
    std::filesystem::remove_all(path);
}

Broker::Broker(const TestFolder& folder, const std::string& settings)
    : port(freePort(SOCK_STREAM))
    , configurationFile(folder / "broker.conf")
    , outputFile(folder / "broker.out") {
    std::ofstream(configurationFile) << "listener " << port << " 127.0.0.1\nmax_queued_messages 0\n"
                                     << (geteuid() == 0 ? "user root\n" : "")
                                     << (settings.empty() ? "allow_anonymous true\n" : settings);
    start();
}

void Broker::start() {
    process = std::make_unique<Process>(
        std::vector<std::string>{MOSQUITTO_PROGRAM, "-c", configurationFile}, outputFile);
    EXPECT_TRUE(eventually([this] { return accepts(port); }));
}

void Broker::kill() {
    process.reset();
}

Subscriber::Subscriber(const TestFolder& folder, const Broker& broker,
                       const std::vector<std::string>& options)
    : process(subscriberCommand(broker, options), folder / "subscriber.out") {
    EXPECT_TRUE(waitForSubscription());
}

bool Subscriber::waitForSubscription(std::size_t times) const {
    return eventually([&] { return occurrences(process.output(), "received SUBACK") >= times; });
}

std::vector<std::string> Subscriber::payloads(std::size_t count, Deadline deadline) const {
    std::vector<std::string> found;
    eventually(
        [&] {
            found = linesStartingWith(process.output(), '{');
            return found.size() >= count;
        },
        deadline);
    return found;
}

Cloud::Cloud(const TestFolder& folder, const std::string& certificate)
    : process({CLOUD_PROGRAM, "--certificate", certificates() + certificate + ".pem", "--key",
               certificates() + certificate + ".key", "--secret",
               "00112233-4455-6677-8899-aabbccddeeffdevice"},
              folder / "cloud.out") {
    EXPECT_TRUE(eventually([this] { return process.output().find('\n') != std::string::npos; }));
    std::istringstream firstLine(process.output());
    firstLine >> port >> port >> port; // "listening on PORT"
}

void Cloud::setFault(const std::string& fault) {
    const std::string acknowledgement = "fault: " + fault + "\n";
    const std::size_t before = occurrences(process.output(), acknowledgement);
    process.say(fault);
    EXPECT_TRUE(
        eventually([&] { return occurrences(process.output(), acknowledgement) > before; }));
}

std::vector<Json::Value> Cloud::requests() const {
    std::vector<Json::Value> found;
    for (const std::string& line : linesStartingWith(process.output(), '{')) {
        found.push_back(parsed(line));
    }
    return found;
}

DaemonSetup::DaemonSetup(const TestFolder& testFolder, const Broker& broker,
                         const std::string& cloudUrl)
    : folder(testFolder)
    , upstreamPort(freePort(SOCK_DGRAM)) {
    configuration["log"]["level"] = 50;
    configuration["udp"]["veyraPort"] = upstreamPort;
    configuration["network"]["veyraServer"] = cloudUrl;
    configuration["network"]["gatewayKey"] = "00112233445566778899aabbccddeeff";
    configuration["mqtt"]["enabled"] = true;
    configuration["mqtt"]["host"] = "127.0.0.1";
    configuration["mqtt"]["port"] = broker.port;
    std::filesystem::create_directories(folder / "run/config");
    std::ofstream(folder / "run/config/device_info.json") << R"({"deviceId":"device"})";
}

Daemon::Daemon(const DaemonSetup& setup)
    : upstreamPort(setup.upstreamPort)
    , logFile(setup.folder / "daemon.log")
    , process(daemonCommand(setup), setup.folder / "daemon.out", setup.environment) {}

bool Daemon::waitUntilReady() const {
    return eventually([this] { return hasBrokerThread(process.pid()) && isBound(upstreamPort); });
}

void Daemon::sendDatagram(const std::string& text) const {
    static const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(upstreamPort);
    EXPECT_EQ(sendto(descriptor, text.data(), text.size(), 0,
                     reinterpret_cast<const sockaddr*>(&address), sizeof address),
              static_cast<ssize_t>(text.size()));
}

bool Daemon::waitForRecord(const std::string& text, std::size_t times, Deadline deadline) const {
    return eventually([&] { return occurrences(log(), text) >= times; }, deadline);
}

Company::Company(const std::string& certificate)
    : broker(folder)
    , subscriber(folder, broker)
    , cloud(folder, certificate)
    , setup(folder, broker, cloud.baseUrl()) {}

void Company::startDaemon() {
    daemon = std::make_unique<Daemon>(setup);
    EXPECT_TRUE(daemon->waitUntilReady());
}

std::string checkIn(const std::string& path, int id, std::size_t padding) {
    return R"({"method":"POST","path":")" + path +
           R"(","request":{"brantle_serial":"SN1","data":{"type":"check_in","id":)" +
           std::to_string(id) + R"(,"attributes":{"pad":")" + std::string(padding, 'p') +
           R"("}}}})";
}

Json::Value parsed(const std::string& text) {
    Json::Value value;
    EXPECT_TRUE(Json::Reader().parse(text, value, false)) << text;
    return value;
}
