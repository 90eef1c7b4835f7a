// The daemon under test and its real peers: a broker, the stand-in cloud, a subscriber. Everything
// lives in a temporary folder, on ports that the kernel gave, and ends with its object.
#pragma once

#include "common/Json.h"
#include "support/Process.h"

#include <memory>
#include <string>
#include <vector>

using Deadline = std::chrono::milliseconds;

class TestFolder {
  public:
    TestFolder();
    ~TestFolder();
    TestFolder(const TestFolder&) = delete;
    TestFolder& operator=(const TestFolder&) = delete;
    std::filesystem::path operator/(const std::string& name) const { return path / name; }

  private:
    std::filesystem::path path;
};

class Broker {
  public:
    // `settings` are lines for its configuration file instead of "allow_anonymous true".
    explicit Broker(const TestFolder& folder, const std::string& settings = {});
    void start();
    void kill();
    const int port;

  private:
    const std::filesystem::path configurationFile;
    const std::filesystem::path outputFile;
    std::unique_ptr<Process> process;
};

class Subscriber {
  public:
    Subscriber(const TestFolder& folder, const Broker& broker,
               const std::vector<std::string>& options = {});
    bool waitForSubscription(std::size_t times = 1) const;
    // The payloads on lora/veyra so far; waits until there are `count`.
    std::vector<std::string> payloads(std::size_t count = 0,
                                      Deadline deadline = Deadline(10000)) const;

  private:
    Process process;
};

class Cloud {
  public:
    // `certificate` is "cloud", or "stranger" for one that the daemon must not trust.
    explicit Cloud(const TestFolder& folder, const std::string& certificate = "cloud");
    void setFault(const std::string& fault);
    std::string baseUrl() const { return "https://localhost:" + port + "/api/"; }
    std::vector<Json::Value> requests() const;

  private:
    Process process;
    std::string port;
};

// Everything that a daemon is started with; change it before starting.
struct DaemonSetup {
    DaemonSetup(const TestFolder& testFolder, const Broker& broker, const std::string& cloudUrl);
    const TestFolder& folder;
    int upstreamPort;
    Json::Value configuration;
    std::vector<std::string> options;
    std::vector<std::string> environment;
    std::string program = DAEMON_PROGRAM;
};

class Daemon {
  public:
    explicit Daemon(const DaemonSetup& setup);
    // True when the upstream port is open.
    bool waitUntilReady() const;
    void sendDatagram(const std::string& text) const;
    std::string log() const { return fileText(logFile); }
    bool waitForRecord(const std::string& text, std::size_t times = 1,
                       Deadline deadline = Deadline(10000)) const;
    Process& program() { return process; }

  private:
    const int upstreamPort;
    const std::filesystem::path logFile;
    Process process;
};

// The usual company: broker, subscriber, cloud and daemon, ready to relay.
struct Company {
    explicit Company(const std::string& certificate = "cloud");
    TestFolder folder;
    Broker broker;
    Subscriber subscriber;
    Cloud cloud;
    DaemonSetup setup;
    std::unique_ptr<Daemon> daemon;
    void startDaemon();
};

// A datagram with a check-in for `path` and the member data.id.
std::string checkIn(const std::string& path, int id = 1, std::size_t padding = 0);

Json::Value parsed(const std::string& text);
