#include "Process.h"

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

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

Process::Process(const std::string& command, std::string output)
    : outputFile(std::move(output)) {
    std::filesystem::remove(outputFile); // an earlier process may have left it
    const std::string line = "exec " + command + " > " + outputFile + " 2> " + outputFile + ".err";
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) == 0 && (child = fork()) == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(ends[0], STDIN_FILENO);
        execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
        _exit(127);
    }
    close(ends[0]);
    input = ends[1];
}

Process::~Process() {
    end(SIGKILL);
    close(input);
}

void Process::say(const std::string& line) const {
    const std::string text = line + "\n";
    static_cast<void>(!write(input, text.data(), text.size()));
}

int Process::waitForEnd(Deadline deadline) {
    int status = 0;
    if (ended == stillRunning &&
        eventually([&] { return waitpid(child, &status, WNOHANG) == child; }, deadline)) {
        ended = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    return ended;
}

int Process::end(int signalNumber, Deadline deadline) {
    if (waitForEnd(Deadline(0)) == stillRunning) {
        kill(child, signalNumber);
    }
    return waitForEnd(deadline);
}

std::size_t Process::countOf(const char* procFolder) const {
    const std::filesystem::directory_iterator entries(proc() / procFolder);
    return static_cast<std::size_t>(std::distance(entries, {}));
}

long Process::statusValue(const std::string& name) const {
    const std::string text = fileText(proc() / "status");
    return std::stol(text.substr(text.find(name) + name.size()));
}
