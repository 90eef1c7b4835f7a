// The daemon under test in the company of its real peers: a broker, a subscriber to the replies and
// the stand-in cloud, in a temporary folder and on ports that the kernel gave. All of it ends with
// the object.
#pragma once

#include "Process.h"
#include "common/Json.h"

#include <memory>
#include <string>
#include <vector>

// The built program. VEYRA_DAEMON_PROGRAM in the environment names another, such as an emulated one.
std::string daemonProgram();

class Company {
  public:
    // `certificate` is the cloud's: "cloud", or "stranger" for one that must not be trusted.
    explicit Company(const std::string& certificate = "cloud");
    ~Company();
    Company(const Company&) = delete;
    Company& operator=(const Company&) = delete;

    // Starts the broker again; `settings` replace "allow_anonymous true" in its configuration.
    void restartBroker(const std::string& settings = "allow_anonymous true");
    void killBroker() { broker.reset(); }
    void subscribe();

    // Starts the daemon with `configuration` and further command-line options, and does not wait.
    Process& startDaemon(const std::string& options = {},
                         const std::string& program = daemonProgram());
    // Starts it and waits until its upstream port is open.
    void startReadyDaemon();
    void send(const std::string& datagram) const;
    std::string log() const { return fileText(file("daemon.log")); }
    bool logged(const std::string& text, std::size_t times = 1,
                Deadline deadline = Deadline(10000)) const;

    void setFault(const std::string& fault) const;
    // The requests that the cloud saw so far.
    std::vector<Json::Value> requests() const;
    // The payloads on lora/veyra so far; waits until there are `count`.
    std::vector<std::string> replies(std::size_t count = 0,
                                     Deadline deadline = Deadline(10000)) const;

    std::string file(const std::string& name) const { return folder / name; }

    Json::Value configuration;
    std::unique_ptr<Process> daemon;

  private:
    const std::filesystem::path folder;
    const int brokerPort;
    const int upstreamPort;
    std::unique_ptr<Process> broker;
    std::unique_ptr<Process> subscriber;
    std::unique_ptr<Process> cloud;
};

// A check-in with the member data.id and some padding.
std::string checkIn(const std::string& path, int id = 1, std::size_t padding = 0);

Json::Value parsed(const std::string& text);
