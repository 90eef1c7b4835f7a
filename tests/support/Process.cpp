#include "support/Process.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

[[noreturn]] void become(const std::vector<std::string>& command, const std::string& output,
                         const std::vector<std::string>& environment, int input) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int out = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int err = open((output + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(input, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    closefrom(STDERR_FILENO + 1);
    for (const std::string& variable : environment) {
        putenv(strdup(variable.c_str()));
    }
    std::vector<char*> arguments;
    for (const std::string& argument : command) {
        arguments.push_back(strdup(argument.c_str()));
    }
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    _exit(127);
}

} // namespace

bool eventually(const std::function<bool()>& condition, Deadline deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

std::string fileText(const std::filesystem::path& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

std::size_t occurrences(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

Process::Process(const std::vector<std::string>& command, std::filesystem::path output,
                 const std::vector<std::string>& environment)
    : outputFile(std::move(output)) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    child = fork();
    if (child == 0) {
        become(command, outputFile, environment, ends[0]);
    }
    close(ends[0]);
    input = ends[1];
}

Process::~Process() {
    if (isRunning()) {
        send(SIGKILL);
        waitForEnd();
    }
    close(input);
}

void Process::send(int signalNumber) const {
    kill(child, signalNumber);
}

void Process::say(const std::string& line) const {
    const std::string text = line + "\n";
    if (write(input, text.data(), text.size()) < 0) {
        throw std::runtime_error("child takes no input");
    }
}

int Process::waitForEnd(Deadline deadline) {
    eventually(
        [this] {
            int status = 0;
            if (ended == stillRunning && waitpid(child, &status, WNOHANG) == child) {
                ended = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
            }
            return ended != stillRunning;
        },
        deadline);
    return ended;
}

int Process::stop() {
    send(SIGTERM);
    return waitForEnd();
}

std::size_t Process::countOf(const char* procFolder) const {
    const std::filesystem::path folder =
        "/proc/" + std::to_string(child) + "/" + std::string(procFolder);
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}
