#include "Subject.h"

#include "Cores.h"
#include "Load.h"
#include "Ports.h"

#include <csignal>
#include <ctime>
#include <fstream>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// The defaults of Debian's nginx write below /var.
void writeCloudConfiguration(const std::string& folder, int port) {
    std::ofstream out(folder + "/nginx.conf");
    out << "daemon off; master_process off;\n"
        << (geteuid() == 0 ? "user root;\n" : "") << "pid " << folder << "/nginx.pid;\n"
        << "events { worker_connections 64; }\n"
        << "http {\n    access_log off;\n";
    for (const char* kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
        out << "    " << kind << "_temp_path " << folder << "/nginx-" << kind << ";\n";
    }
    out << "    client_body_buffer_size 64k;\n"
        << "    keepalive_timeout 1h;\n    keepalive_requests 1000000000;\n"
        << "    server {\n        listen 127.0.0.1:" << port << " ssl;\n"
        << "        ssl_certificate " << folder << "/certificates/cloud.pem;\n"
        << "        ssl_certificate_key " << folder << "/certificates/cloud.key;\n"
        << "        location / {\n            default_type application/json;\n"
        << "            return 200 '{\"accepted\":true,\"id\":1,\"number\":1}';\n"
        << "        }\n    }\n}\n";
}

std::string writeBrokerConfiguration(const std::string& folder, int port) {
    std::string file = folder + "/broker.conf";
    std::ofstream(file) << "listener " << port << " 127.0.0.1\nallow_anonymous true\n"
                        << "max_queued_messages 0\n"
                        << (geteuid() == 0 ? "user root\n" : "");
    return file;
}

std::string nginxCommand(const std::string& folder, int port) {
    writeCloudConfiguration(folder, port);
    return onMeasuredCore() + NGINX_PROGRAM " -e " + folder + "/nginx.log -p " + folder + " -c " +
           folder + "/nginx.conf";
}

} // namespace

std::string daemonCommand(const std::string& folder, int port, int cloudPort, int brokerPort,
                          unsigned logLevel) {
    std::filesystem::create_directories(folder + "/run/config");
    std::ofstream(folder + "/run/config/device_info.json") << R"({"deviceId":"device"})";
    std::ofstream(folder + "/daemon.conf")
        << R"({"log":{"level":)" << logLevel << R"(},"udp":{"veyraPort":)" << port
        << R"(},"network":{"gatewayKey":"00112233445566778899aabbccddeeff",)"
        << R"("veyraServer":"https://localhost:)" << cloudPort
        << R"(/api/"},"mqtt":{"enabled":true,"host":"127.0.0.1","port":)" << brokerPort << "}}";
    return DAEMON_PROGRAM " -c " + folder + "/daemon.conf -l " + folder + "/daemon.log --var-run " +
           folder + "/run";
}

Peers::Peers(const std::string& folder)
    : cloudPort(freePort(SOCK_STREAM))
    , brokerPort(freePort(SOCK_STREAM))
    , cloud(nginxCommand(folder, cloudPort), folder + "/nginx.out")
    , broker(MOSQUITTO_PROGRAM " -c " + writeBrokerConfiguration(folder, brokerPort),
             folder + "/broker.out") {
    // Both say when they are up only in their own ways; a listening port is the same for all.
    for (const int port : {cloudPort, brokerPort}) {
        char entry[32];
        std::snprintf(entry, sizeof entry, ": 0100007F:%04X ", static_cast<unsigned>(port));
        if (!eventually([&] { return occurrences(fileText("/proc/net/tcp"), entry) > 0; })) {
            throw std::runtime_error("a peer did not start:\n" + fileText(folder + "/nginx.log") +
                                     broker.errors());
        }
    }
}

Subject::Subject(std::string subjectName, std::string ownFolder, const Peers& peers)
    : name(std::move(subjectName))
    , port(freePort(SOCK_DGRAM))
    , folder(std::move(ownFolder)) {
    if (name == "daemon") {
        command = daemonCommand(folder, port, peers.cloudPort, peers.brokerPort, 30);
    } else {
        command = (name == "floor" ? FLOOR_PROGRAM : FLOOR_JSON_PROGRAM) +
                  (" " + std::to_string(port)) + " " + std::to_string(peers.brokerPort) +
                  " https://localhost:" + std::to_string(peers.cloudPort) + "/api/" +
                  (name == "floor-reset" ? " reset" : "");
    }
}

void Subject::start(const std::string& wrapper) {
    process = std::make_unique<Process>(onMeasuredCore() + wrapper + " " + command,
                                        folder + "/" + name + ".out");
}

void Subject::stop() {
    if (const int status = process->end(SIGTERM); status != 0) {
        throw std::runtime_error(name + " ended with " + std::to_string(status) + "\n" +
                                 process->errors());
    }
    process.reset();
}

double Subject::cpuSeconds() const {
    clockid_t clock{};
    timespec used{};
    const int id = std::stoi(process->proc().filename());
    if (clock_getcpuclockid(id, &clock) != 0 || clock_gettime(clock, &used) != 0) {
        throw std::runtime_error("no processor clock of " + name);
    }
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}
