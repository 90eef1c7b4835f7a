// The programs that are measured and the peers around them, on ports of the loopback interface that
// the kernel gave and in a folder of the caller's. All of them end with their objects.
#pragma once

#include "Process.h"

#include <memory>
#include <string>

// Writes the daemon's files into `folder` and returns the command that runs it.
std::string daemonCommand(const std::string& folder, int port, int cloudPort, int brokerPort,
                          unsigned logLevel);

// nginx with a certificate from `folder`/certificates, and mosquitto.
class Peers {
  public:
    explicit Peers(const std::string& folder);

    const int cloudPort;
    const int brokerPort;

  private:
    Process cloud;
    Process broker;
};

// The daemon or one of the floors.
class Subject {
  public:
    Subject(std::string subjectName, std::string folder, const Peers& peers);

    // Starts it, if need be below another program such as a profiler, and does not wait.
    void start(const std::string& wrapper = {});
    // Throws when its exit status is not 0.
    void stop();

    long residentKiB() const { return process->statusValue("VmRSS:"); }
    // Processor time of all its threads since it started, user and system.
    double cpuSeconds() const;

    const std::string name;
    const int port;

  private:
    const std::string folder;
    std::string command;
    std::unique_ptr<Process> process;
};
