#include "support/Company.h"

#include "Ports.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

namespace {

std::filesystem::path makeFolder() {
    std::string name = std::filesystem::temp_directory_path() / "veyra-test-XXXXXX";
    return mkdtemp(name.data());
}

// Whether a socket waits at the port, looked at without touching it; connections do not count.
bool isBound(const char* table, int port) {
    char entry[48];
    std::snprintf(entry, sizeof entry, ": 0100007F:%04X 00000000:0000",
                  static_cast<unsigned>(port));
    return fileText(table).find(entry) != std::string::npos;
}

std::vector<std::string> jsonLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line) && !stream.eof();) {
        if (line[0] == '{') {
            lines.push_back(line);
        }
    }
    return lines;
}

} // namespace

std::string daemonProgram() {
    const char* other = std::getenv("VEYRA_DAEMON_PROGRAM");
    return other == nullptr ? DAEMON_PROGRAM : other;
}

Company::Company(const std::string& certificate)
    : folder(makeFolder())
    , brokerPort(freePort(SOCK_STREAM))
    , upstreamPort(freePort(SOCK_DGRAM)) {
    EXPECT_EQ(Process(DEMO_FOLDER "/make-certificates.sh " + file("certificates"), file("made"))
                  .waitForEnd(),
              0);
    restartBroker();
    subscribe();
    const std::string name = file("certificates/" + certificate);
    cloud =
        std::make_unique<Process>(CLOUD_PROGRAM " --certificate " + name + ".pem --key " + name +
                                      ".key --secret 00112233-4455-6677-8899-aabbccddeeffdevice",
                                  file("cloud.out"));
    EXPECT_TRUE(eventually([&] { return cloud->output().find('\n') != std::string::npos; }));
    std::string cloudPort = cloud->output().substr(std::string("listening on ").size());
    cloudPort.pop_back();

    std::filesystem::create_directories(folder / "run/config");
    std::ofstream(file("run/config/device_info.json")) << R"({"deviceId":"device"})";
    configuration = parsed(R"({"log":{"level":50},"mqtt":{"enabled":true,"host":"127.0.0.1"},
        "network":{"gatewayKey":"00112233445566778899aabbccddeeff"}})");
    configuration["udp"]["veyraPort"] = upstreamPort;
    configuration["mqtt"]["port"] = brokerPort;
    configuration["network"]["veyraServer"] = "https://localhost:" + cloudPort + "/api/";
}

Company::~Company() {
    EXPECT_EQ(fileText(file("daemon.out.err")).find("Sanitizer"), std::string::npos)
        << fileText(file("daemon.out.err"));
    daemon.reset();
    std::filesystem::remove_all(folder);
}

void Company::restartBroker(const std::string& settings) {
    broker.reset();
    std::ofstream(file("broker.conf"))
        << "listener " << brokerPort << " 127.0.0.1\nmax_queued_messages 0\n"
        << (geteuid() == 0 ? "user root\n" : "") << settings << "\n";
    broker = std::make_unique<Process>(MOSQUITTO_PROGRAM " -c " + file("broker.conf"),
                                       file("broker.out"));
    EXPECT_TRUE(eventually([&] { return isBound("/proc/net/tcp", brokerPort); }));
}

void Company::subscribe() {
    subscriber.reset();
    // Line by line, since it writes to a file. It connects again by itself.
    subscriber = std::make_unique<Process>("stdbuf -oL " MOSQUITTO_SUB_PROGRAM
                                           " -d -q 1 -t lora/veyra -h 127.0.0.1 -p " +
                                               std::to_string(brokerPort),
                                           file("subscriber.out"));
    EXPECT_TRUE(eventually(
        [&] { return subscriber->output().find("received SUBACK") != std::string::npos; }));
}

Process& Company::startDaemon(const std::string& options, const std::string& program) {
    daemon.reset();
    std::filesystem::remove(file("daemon.log"));
    std::ofstream(file("daemon.conf")) << configuration.toStyledString();
    daemon = std::make_unique<Process>(DEMO_FOLDER "/with-ca.sh " + file("certificates/ca.pem") +
                                           " " + program + " -c " + file("daemon.conf") + " -l " +
                                           file("daemon.log") + " --var-run " + file("run") + " " +
                                           options,
                                       file("daemon.out"));
    return *daemon;
}

void Company::startReadyDaemon() {
    startDaemon();
    // The port is tested before, and opened for good after this record.
    EXPECT_TRUE(logged("TRACE Start VeyraReceiveFunction thread\n"));
    EXPECT_TRUE(eventually([&] { return isBound("/proc/net/udp", upstreamPort); }));
}

void Company::send(const std::string& datagram) const {
    static const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopbackAddress(upstreamPort);
    EXPECT_EQ(sendto(descriptor, datagram.data(), datagram.size(), 0,
                     reinterpret_cast<const sockaddr*>(&address), sizeof address),
              static_cast<ssize_t>(datagram.size()));
}

bool Company::logged(const std::string& text, std::size_t times, Deadline deadline) const {
    return eventually([&] { return occurrences(log(), text) >= times; }, deadline);
}

void Company::setFault(const std::string& fault) const {
    const std::size_t before = occurrences(cloud->output(), "fault: ");
    cloud->say(fault);
    EXPECT_TRUE(eventually([&] { return occurrences(cloud->output(), "fault: ") > before; }));
}

std::vector<Json::Value> Company::requests() const {
    std::vector<Json::Value> found;
    for (const std::string& line : jsonLines(cloud->output())) {
        found.push_back(parsed(line));
    }
    return found;
}

std::vector<std::string> Company::replies(std::size_t count, Deadline deadline) const {
    std::vector<std::string> found;
    eventually(
        [&] {
            found = jsonLines(subscriber->output());
            return found.size() >= count;
        },
        deadline);
    return found;
}

std::string checkIn(const std::string& path, int id, std::size_t padding) {
    return R"({"method":"POST","path":")" + path +
           R"(","request":{"brantle_serial":"SN1","data":{"type":"check_in","id":)" +
           std::to_string(id) + R"(,"attributes":")" + std::string(padding, 'p') + R"("}}})";
}

Json::Value parsed(const std::string& text) {
    Json::Value value;
    EXPECT_TRUE(Json::Reader().parse(text, value, false)) << text;
    return value;
}
