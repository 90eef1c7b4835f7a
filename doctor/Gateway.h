// The facts about the gateway that one run of the doctor collects. Each check adds facts, and later
// checks use them. One thread.
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

    // Copies the user, the proxies and the files from the service, because no daemon runs.
    void takeFromService();

    // Adds the groups of the service to the user.
    void takeGroups();

    // Milliseconds that a step may take: `wantedMs`, or the time left in the run if that is
    // shorter. 0 when no time is left.
    long limitMs(long wantedMs) const;

    // The fix for missing permissions: "run as root". Empty when the caller is root.
    std::string rightsHint() const;

    // Whether a fix may tell root to run a command on this path. True for a path of the package and
    // for a path that the caller named, if only root can change what the path leads to. False for a
    // path that a process of the service user chose.
    bool isOwnPath(const std::string& path) const;

    // Whether the service user may enter the directory of this file.
    bool mayReach(const std::string& path) const;

    // Reads a file as the service user. Returns errno, or 0.
    int readAsService(const std::string& path, std::string& text,
                      std::size_t limitBytes = 1 << 20) const;

    // Reads the log into `history`, unless the records are in syslog.
    void readHistory();

    // The path by which the doctor reaches the file that the daemon sees at the absolute path
    // `path`. The mounts of the daemon may differ from those of the doctor.
    std::string asDaemonSees(const std::string& path) const;

    // Looks at the daemon now, and notes the daemon's connection to the broker.
    Look look();

    // The inode of the connection between the daemon and its broker; 0 when there is none.
    std::uint64_t linkInode(const Look& look) const;

    // Whether the running daemon uses the content of this configuration file.
    bool isConfigurationCurrent() const;

    // When a file was last written, if that was after the start of the daemon; else 0.
    std::time_t changedSinceStart(const std::string& path) const;

    // Whether the check `check` has found a problem in this run.
    bool hasProblem(const std::string& check) const { return problems.count(check) != 0; }

    const Options options;
    const bool isRoot;
    const std::uint64_t startedMs; // monotonic

    ServiceState service;
    Daemons daemons;
    const Daemon* daemon = nullptr;   // the examined daemon; null if no daemon was found
    ServiceUser user;                 // of the daemon, or of the service if none runs
    bool userIsMissing = false;       // no daemon was found, and the service user does not exist
    std::vector<std::string> proxies; // of the daemon, or of the service: "name=value"
    Look firstLook;
    DatagramWatch datagrams;

    std::string configurationFile, logFile, runDirectory;
    std::string configurationText;
    Json::Value configuration; // null without a usable file
    Json::Value device;
    std::string fingerprint; // of the secret; empty when there is no secret
    LogHistory history;
    int logError = 0; // errno of reading the log
    HttpAnswer cloud;
    std::string brokerHost;            // numeric, the address that accepts connections
    std::unique_ptr<MqttProbe> broker; // null if the connection failed
    std::vector<std::uint64_t> links;  // inodes of the daemon's connection, one for each change
    bool brokerIsUnresolved = false;   // the check "broker" found no address of the broker
    bool wasLinked = false;     // two looks have shown the same connection, or the doctor ended it
    bool disturbedLink = false; // the doctor's connection ended the daemon's
    bool replyWasSeen = false;
    std::set<std::string> problems; // names of the checks that found one
};
