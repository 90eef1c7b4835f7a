#include "HostFacts.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
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

// The real ids as well, since the kernel asks for them where access is only tried. The groups stay
// the service's: root has no need of any.
AsUserOf::AsUserOf(int pid) {
    struct stat process {};
    const bool runs = pid != 0 && stat(processFolder(pid).c_str(), &process) == 0;
    const passwd* const user = runs ? getpwuid(process.st_uid) : getpwnam("lora-veyra");
    const uid_t uid = runs || user == nullptr ? process.st_uid : user->pw_uid;
    const gid_t gid = runs || user == nullptr ? process.st_gid : user->pw_gid;
    changed = getuid() == 0 && uid != 0;
    if (changed &&
        ((user == nullptr ? setgroups(0, nullptr) : initgroups(user->pw_name, gid)) != 0 ||
         setresgid(gid, gid, 0) != 0 || setresuid(uid, uid, 0) != 0)) {
        throw std::runtime_error("cannot act as the service's user");
    }
}

AsUserOf::~AsUserOf() {
    if (changed && (setresuid(0, 0, 0) != 0 || setresgid(0, 0, 0) != 0)) {
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
        const auto isDaemon = [](const fs::path& path) { return path.filename() == daemonName; };
        const auto isBanner = [](const std::string& text) {
            return text == "--version" || text == "--help" || text == "-help";
        };
        // Below an emulator the emulator's own arguments come first.
        const auto program = std::find_if(arguments.begin(), arguments.end(), isDaemon);
        const bool emulated = !texts.empty() && texts[0].find("qemu-") != std::string::npos;
        const fs::path network = linkTarget(processFolder(pid) / "ns/net");
        if (program == arguments.end() || (program != arguments.begin() && !emulated) ||
            std::any_of(texts.begin(), texts.end(), isBanner) ||
            (!network.empty() && network != linkTarget("/proc/self/ns/net"))) {
            continue;
        }
        try {
            const fs::path folder = processFolder(pid) / "cwd";
            CommandLine line =
                parseCommandLine(static_cast<int>(arguments.end() - program), &*program);
            line.configurationFile = folder / line.configurationFile;
            line.logFile = folder / line.logFileOrDefault();
            line.runDirectory = folder / line.runDirectory;
            daemons.push_back({pid, line});
        } catch (const std::logic_error&) { // a value is missing: it is about to end
        }
    }
    return daemons;
}

void takeEnvironmentOf(int pid) {
    const std::vector<std::string> entries = textsOf(pid, "environ");
    clearenv();
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

std::vector<Socket> readSockets() {
    std::vector<Socket> sockets;
    std::map<std::string, int> owners = socketOwners();
    for (const std::string file : {"udp", "udp6", "tcp", "tcp6"}) {
        std::ifstream lines("/proc/net/" + file);
        std::string line;
        std::getline(lines, line); // the heading
        while (std::getline(lines, line)) {
            std::replace(line.begin(), line.end(), ':', ' ');
            std::istringstream fields(line);
            std::string skipped;
            std::string inode;
            Socket socket;
            socket.isTcp = file[0] == 't';
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

std::string viewOf(int pid, const std::string& path) {
    const std::string root = processFolder(pid) / "root";
    return access((root + "/").c_str(), X_OK) == 0 ? root + path : path;
}

// Never waits for a pipe, nor takes from one.
int readText(const std::string& path, std::string& text) {
    constexpr std::streamoff wanted = 1 << 20;
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    }
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return errno == 0 ? EIO : errno;
    }
    file.seekg(std::max<std::streamoff>(0, status.st_size - wanted)); // the kernel's files have 0
    std::ostringstream all;
    all << file.rdbuf();
    text = all.str();
    return 0;
}

int mayWrite(const std::string& path) {
    std::error_code unseen; // a folder above may not be searched: access tells
    if (fs::is_directory(path, unseen)) {
        return EISDIR;
    }
    const bool missing = access(path.c_str(), F_OK) != 0 && errno == ENOENT;
    const std::string folder = fs::path(path).parent_path();
    return access(missing ? folder.c_str() : path.c_str(), missing ? W_OK | X_OK : W_OK) == 0
               ? 0
               : errno;
}

std::uint64_t freeBytes(const std::string& path) {
    std::error_code error;
    const fs::space_info space = fs::space(fs::path(path).parent_path(), error);
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
