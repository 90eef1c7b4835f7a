// What is known of the gateway during one run of the doctor. Each check adds what it learned, and
// later checks use it. One thread.
#pragma once

#include "Options.h"
#include "common/Json.h"
#include "host/Daemon.h"
#include "host/DatagramWatch.h"
#include "host/HttpProbe.h"
#include "host/LogHistory.h"
#include "host/MqttProbe.h"
#include "host/Process.h"

#include <memory>
#include <set>

struct Gateway {
    explicit Gateway(const Options& given);

    // Milliseconds that a step may take: `wantedMs`, or what is left of the run; 0 when nothing is.
    long limitMs(long wantedMs) const;

    // The fix where rights are missing: to be root. Empty when the caller is root.
    std::string rightsHint() const;

    // Whether root may be told to run a command on this path: it is the package's or the caller's, and
    // not one that the process of the service user chose.
    bool isOwnPath(const std::string& path) const;

    // Reads a file as the service user. Returns errno, or 0.
    int readAsService(const std::string& path, std::string& text) const;

    // Where the daemon sees the absolute path, whose mounts may differ from those of the doctor.
    std::string asDaemonSees(const std::string& path) const;

    // A look at the daemon now, which also notes its connection to the broker.
    Look look();

    // Whether a look of this run has shown a connection to the broker.
    bool wasLinked() const;

    // The inode of the connection between the daemon and its broker; 0 when there is none.
    std::uint64_t linkInode(const Look& look) const;
    bool isLinked(const Look& look) const { return linkInode(look) != 0; }

    // When a file was last written, if that was after the start of the daemon; else 0.
    std::time_t changedSinceStart(const std::string& path) const;

    // Whether a check of this run has found a problem.
    bool hasProblem(const std::string& check) const { return problems.count(check) != 0; }

    const Options options;
    const bool isRoot;
    const std::uint64_t startedMs; // monotonic

    ServiceState service;
    Daemons daemons;
    const Daemon* daemon = nullptr; // the one that is examined; null: none runs
    ServiceUser user;               // the daemon's, else the packaged service's
    Look firstLook;
    DatagramWatch datagrams;

    std::string configurationFile, logFile, runDirectory;
    std::string configurationText;
    Json::Value configuration; // null without a usable file
    Json::Value device;
    std::string fingerprint; // of the secret; empty when none can be made
    LogHistory history;
    int logError = 0; // errno of reading the log
    HttpAnswer cloud;
    std::string brokerHost;            // numeric, the address that accepts connections
    std::unique_ptr<MqttProbe> broker; // connected; null when that failed
    std::vector<std::uint64_t> links;  // the daemon's connection as the looks showed it change
    bool disturbedLink = false;        // the doctor's connection ended the daemon's
    bool replyWasSeen = false;
    std::set<std::string> problems; // names of the checks that found one
};
