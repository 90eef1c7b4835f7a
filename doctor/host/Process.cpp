#include "host/Process.h"

#include "common/Clock.h"
#include "host/Files.h"
#include "host/Text.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

namespace fs = std::filesystem;

namespace {

// The lines "NAME:<tab>TEXT" of a file such as /proc/PID/status. Maps each name to its text.
std::map<std::string, std::string> fieldsOf(const std::string& path) {
    std::istringstream lines(textOf(path));
    std::map<std::string, std::string> fields;
    for (std::string line; std::getline(lines, line);) {
        const auto end = line.find(":\t");
        if (end != std::string::npos) {
            fields[line.substr(0, end)] = line.substr(end + 2);
        }
    }
    return fields;
}

std::uint64_t numberIn(const std::string& text) {
    return std::strtoull(text.c_str(), nullptr, 10);
}

// The second number of a text such as "1000\t1001\t1000\t1000".
std::uint64_t secondNumberIn(const std::string& text) {
    const auto tab = text.find('\t');
    if (tab == std::string::npos) {
        return 0;
    }
    return numberIn(text.substr(tab));
}

double secondsOf(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

Socket parseSocket(std::string line, bool isTcp) {
    std::replace(line.begin(), line.end(), ':', ' ');
    std::istringstream fields(line);
    std::string skipped;
    Socket socket;
    socket.isTcp = isTcp;
    fields >> skipped >> socket.localAddress >> std::hex >> socket.localPort >>
        socket.remoteAddress >> socket.remotePort >> socket.state >> skipped >>
        socket.waitingBytes >> skipped >> skipped >> skipped >> skipped >> skipped >> std::dec >>
        socket.inode >> skipped >> skipped >> socket.drops;
    return socket;
}

std::uint64_t socketInode(const std::string& link) {
    constexpr const char* prefix = "socket:[";
    if (link.rfind(prefix, 0) != 0) {
        return 0;
    }
    return numberIn(link.substr(std::strlen(prefix)));
}

// All sockets in the network namespace of the process. With the id 0: of this process.
std::vector<Socket> readSockets(int pid) {
    const std::string directory = pid == 0 ? "/proc/net/" : processPath(pid, "net/");
    std::vector<Socket> sockets;
    for (const std::string name : {"udp", "udp6", "tcp", "tcp6"}) {
        std::ifstream lines(directory + name); // can have 100,000 closed connections
        std::string line;
        std::getline(lines, line); // the heading
        while (std::getline(lines, line)) {
            const Socket socket = parseSocket(line, name.front() == 't');
            if (socket.state != tcpTimeWait) {
                sockets.push_back(socket);
            }
        }
    }
    return sockets;
}

// The inodes of the sockets of a process, and 0 for its other descriptors. Empty when the caller
// has no permission to list them.
std::set<std::uint64_t> socketInodesOf(int pid) {
    std::set<std::uint64_t> inodes;
    for (const int descriptor : numbersIn(processPath(pid, "fd"))) {
        inodes.insert(
            socketInode(linkTarget(processPath(pid, "fd/" + std::to_string(descriptor)))));
    }
    return inodes;
}

// The kernel function in which a thread of the process waits until another program reads a pipe or
// a syslog socket. Empty if no thread waits there, or if the function cannot be read.
std::string blockingFunctionOf(int pid) {
    constexpr std::array functions = {"pipe_write", "wait_for_partner", "unix_wait_for_peer",
                                      "sock_alloc_send"};
    for (const int thread : numbersIn(processPath(pid, "task"))) {
        std::string current = textOf(processPath(pid, "task/" + std::to_string(thread) + "/wchan"));
        for (const char* const function : functions) {
            if (current.find(function) != std::string::npos) {
                return current;
            }
        }
    }
    return {};
}

} // namespace

std::string processPath(int pid, const std::string& name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

std::vector<int> numbersIn(const std::string& directory) {
    std::vector<int> numbers;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename();
        if (name.find_first_not_of("0123456789") == std::string::npos) {
            numbers.push_back(std::stoi(name));
        }
    }
    return numbers;
}

ProcessStatus readProcessStatus(int pid) {
    auto fields = fieldsOf(processPath(pid, "status"));
    ProcessStatus status;
    if (fields.empty()) {
        return status;
    }
    status.state = *fields["State"].c_str();
    if (const auto tracer = numberIn(fields["TracerPid"]); tracer != 0) {
        // The kernel names the thread that traces. The report needs its process.
        auto tracing = fieldsOf(processPath(static_cast<int>(tracer), "status"));
        status.tracerPid = static_cast<int>(numberIn(tracing["Tgid"]));
    }
    status.parentPid = static_cast<int>(numberIn(fields["PPid"]));
    status.uid = static_cast<uid_t>(secondNumberIn(fields["Uid"]));
    const std::string user = std::to_string(status.uid);
    status.hasOneUser = fields["Uid"] == user + "\t" + user + "\t" + user + "\t" + user;
    status.gid = static_cast<gid_t>(secondNumberIn(fields["Gid"]));
    std::istringstream groups(fields["Groups"]);
    status.groups.assign(std::istream_iterator<gid_t>(groups), {});
    status.threads = numberIn(fields["Threads"]);
    status.voluntarySwitches = numberIn(fields["voluntary_ctxt_switches"]);
    status.virtualKib = numberIn(fields["VmSize"]);
    return status;
}

double startTimeOf(int pid) {
    constexpr int startField = 20; // counted after the program's name, which may contain any text
    const std::string stat = textOf(processPath(pid, "stat"));
    std::istringstream fields(stat.substr(std::min(stat.rfind(')') + 1, stat.size())));
    std::string field;
    for (int index = 0; index < startField; ++index) {
        fields >> field;
    }
    const double startedS =
        static_cast<double>(numberIn(field)) / static_cast<double>(sysconf(_SC_CLK_TCK));
    return secondsOf(CLOCK_REALTIME) - secondsOf(CLOCK_BOOTTIME) + startedS;
}

std::time_t bootTime() {
    return static_cast<std::time_t>(secondsOf(CLOCK_REALTIME) - secondsOf(CLOCK_BOOTTIME));
}

std::string describeProcess(int pid) {
    return "process " + std::to_string(pid) + " (" + printable(textOf(processPath(pid, "comm"))) +
           ")";
}

std::string kernelRecordOfDaemon() {
    constexpr const char* name = "lora-veyra-serv"; // the kernel keeps 15 characters
    const Descriptor messages(open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    std::array<char, 8192> buffer{};
    std::string found;
    ssize_t count = 0;
    while ((count = read(messages.get(), buffer.data(), buffer.size())) > 0) {
        std::istringstream lines(std::string(buffer.data(), static_cast<std::size_t>(count)));
        for (std::string line; std::getline(lines, line);) {
            const bool isEnd = line.find("Killed process") != std::string::npos ||
                               line.find("segfault") != std::string::npos;
            if (isEnd && line.find(name) != std::string::npos) {
                found = printable(line.substr(line.find(';') + 1));
            }
        }
    }
    return found;
}

Look lookAt(int pid) {
    Look look;
    look.atMs = monotonicMillis();
    look.pid = pid;
    look.status = readProcessStatus(pid);
    look.waitsIn = textOf(processPath(pid, "wchan"));
    look.blockedIn = blockingFunctionOf(pid);
    const std::set<std::uint64_t> own = socketInodesOf(pid);
    look.socketsAreSeen = !own.empty();
    look.sockets = readSockets(pid);
    for (Socket& socket : look.sockets) {
        socket.isOwn = own.count(socket.inode) != 0;
    }
    return look;
}

bool isStarting(const Look& look) {
    return look.status.threads == 1;
}

int ownerOf(std::uint64_t inode, long limitMs) {
    const std::uint64_t endMs = monotonicMillis() + static_cast<std::uint64_t>(limitMs);
    for (const int pid : numbersIn("/proc")) {
        if (monotonicMillis() >= endMs) {
            return 0;
        }
        if (socketInodesOf(pid).count(inode) != 0) {
            return pid;
        }
    }
    return 0;
}

bool coversLoopback(const std::string& kernelAddress) {
    const std::string address = addressText(kernelAddress);
    return address == "0.0.0.0" || address == "::" || address == "127.0.0.1" ||
           address == "::ffff:127.0.0.1";
}

std::string addressText(const std::string& kernelAddress) {
    std::array<std::uint32_t, 4> words{}; // in the byte order of this machine
    for (std::size_t index = 0; index < kernelAddress.size() / 8 && index < words.size(); ++index) {
        words[index] = static_cast<std::uint32_t>(
            std::strtoul(kernelAddress.substr(8 * index, 8).c_str(), nullptr, 16));
    }
    std::array<char, INET6_ADDRSTRLEN> text{};
    const int family = kernelAddress.size() == 8 ? AF_INET : AF_INET6;
    inet_ntop(family, words.data(), text.data(), text.size());
    return text.data();
}
