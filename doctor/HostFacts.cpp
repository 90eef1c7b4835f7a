#include "HostFacts.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <map>
#include <pwd.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr const char* daemonName = "lora-veyra-server";

fs::path processFolder(int pid) {
    return "/proc/" + std::to_string(pid);
}

// Empty when it may not be read.
fs::path linkTarget(const fs::path& path) {
    std::error_code error;
    return fs::read_symlink(path, error);
}

// The entries of a folder that are numbers; none when it may not be read.
std::vector<int> numbersIn(const fs::path& folder) {
    std::vector<int> numbers;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename();
        if (name.find_first_not_of("0123456789") == std::string::npos) {
            numbers.push_back(std::stoi(name));
        }
    }
    return numbers;
}

// Texts that a NUL ends each.
std::vector<std::string> textsOf(int pid, const std::string& name) {
    std::istringstream all(processFile(pid, name));
    std::vector<std::string> texts;
    for (std::string text; std::getline(all, text, '\0');) {
        texts.push_back(text);
    }
    return texts;
}

// Who holds which sockets, by their inodes.
std::map<std::string, int> socketOwners() {
    std::map<std::string, int> owners;
    for (const int pid : numbersIn("/proc")) {
        const fs::path folder = processFolder(pid) / "fd";
        for (const int descriptor : numbersIn(folder)) {
            owners[linkTarget(folder / std::to_string(descriptor))] = pid;
        }
    }
    return owners;
}

} // namespace

// The groups stay the service's: root has no need of any.
AsUserOf::AsUserOf(int pid) {
    struct stat process {};
    const bool running = pid != 0 && stat(processFolder(pid).c_str(), &process) == 0;
    const passwd* const user = running ? getpwuid(process.st_uid) : getpwnam("lora-veyra");
    if (getuid() == 0 && user != nullptr && user->pw_uid != 0 &&
        (initgroups(user->pw_name, user->pw_gid) != 0 || setegid(user->pw_gid) != 0 ||
         seteuid(user->pw_uid) != 0)) {
        throw std::runtime_error("cannot act as the service's user");
    }
}

AsUserOf::~AsUserOf() {
    if (getuid() == 0 && (seteuid(0) != 0 || setegid(0) != 0)) {
        std::abort(); // never go on half as somebody else
    }
}

std::string processFile(int pid, const std::string& name) {
    std::string text;
    readText(processFolder(pid) / name, text);
    return text.substr(0, text.find_last_not_of('\n') + 1);
}

std::vector<Daemon> findDaemons() {
    std::vector<Daemon> daemons;
    for (const int pid : numbersIn("/proc")) {
        const std::vector<std::string> texts = textsOf(pid, "cmdline");
        std::vector<const char*> arguments(texts.size());
        std::transform(texts.begin(), texts.end(), arguments.begin(),
                       [](const std::string& text) { return text.c_str(); });
        const auto program =
            std::find_if(arguments.begin(), arguments.end(), [](const char* argument) {
                return fs::path(argument).filename() == daemonName;
            });
        // Below an emulator the emulator's own arguments come first.
        const bool runs =
            program == arguments.begin() || texts[0].find("qemu-") != std::string::npos;
        const fs::path network = linkTarget(processFolder(pid) / "ns/net");
        if (program == arguments.end() || !runs ||
            (!network.empty() && network != linkTarget("/proc/self/ns/net"))) {
            continue;
        }
        const fs::path folder = linkTarget(processFolder(pid) / "cwd");
        CommandLine line = parseCommandLine(static_cast<int>(arguments.end() - program), &*program);
        line.configurationFile = folder / line.configurationFile;
        line.logFile = folder / line.logFileOrDefault();
        line.runDirectory = folder / line.runDirectory;
        daemons.push_back({pid, line});
    }
    return daemons;
}

void takeEnvironmentOf(int pid) {
    const std::vector<std::string> entries = textsOf(pid, "environ");
    clearenv();
    setenv("RES_OPTIONS", "timeout:5 attempts:1", 1); // the broker library waits for the resolver
    for (const std::string& entry : entries) {
        const auto end = entry.find('=');
        setenv(entry.substr(0, end).c_str(), entry.c_str() + std::min(end + 1, entry.size()), 1);
    }
}

std::uint64_t statusOf(int pid, const std::string& name) {
    const std::string status = processFile(pid, "status");
    const auto place = status.find("\n" + name + ":");
    return place == std::string::npos
               ? 0
               : std::strtoull(status.c_str() + place + name.size() + 2, nullptr, 10);
}

std::vector<Socket> readSockets(const std::string& protocol) {
    std::vector<Socket> sockets;
    std::map<std::string, int> owners = socketOwners();
    for (const std::string& file : {protocol, protocol + "6"}) {
        std::ifstream lines("/proc/net/" + file);
        std::string line;
        std::getline(lines, line); // the heading
        while (std::getline(lines, line)) {
            std::replace(line.begin(), line.end(), ':', ' ');
            std::istringstream fields(line);
            std::string skipped;
            std::string inode;
            Socket socket;
            fields >> skipped >> socket.address >> std::hex >> socket.port >> skipped >>
                socket.remotePort >> socket.state >> skipped >> socket.waitingBytes >> skipped >>
                skipped >> skipped >> skipped >> skipped >> inode >> skipped >> skipped >>
                std::dec >> socket.drops;
            socket.owner = owners["socket:[" + inode + "]"];
            sockets.push_back(std::move(socket));
        }
    }
    return sockets;
}

bool maySeeSockets(int pid) {
    return !numbersIn(processFolder(pid) / "fd").empty();
}

int readText(const std::string& path, std::string& text) {
    constexpr std::streamoff wanted = 1 << 20;
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return errno == 0 ? EIO : errno;
    }
    file.seekg(0, std::ios::end);
    const std::streamoff size = file.tellg(); // 0 for the kernel's files
    file.clear();
    file.seekg(size > wanted ? size - wanted : 0);
    std::ostringstream all;
    all << file.rdbuf();
    text = all.str();
    return 0;
}

int mayWrite(const std::string& path) {
    if (faccessat(AT_FDCWD, path.c_str(), F_OK, AT_EACCESS) != 0 && errno == ENOENT) {
        const std::string folder = fs::absolute(path).parent_path();
        return faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) == 0 ? 0 : errno;
    }
    return faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0 ? 0 : errno;
}

std::uint64_t freeBytes(const std::string& path) {
    std::error_code error;
    const fs::space_info space = fs::space(fs::absolute(path).parent_path(), error);
    return error ? 0 : space.available;
}

bool syslogListens() {
    const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    constexpr sockaddr_un address = {AF_UNIX, "/dev/log"};
    const bool listens =
        connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(descriptor);
    return listens;
}
