// Child programs of the tests and the benchmarks. A child ends with its Process object.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

using Deadline = std::chrono::milliseconds;

// Polls until `condition` holds; false when it does not within the deadline.
bool eventually(const std::function<bool()>& condition, Deadline deadline = Deadline(10000));

std::string fileText(const std::filesystem::path& path);
std::size_t occurrences(const std::string& text, const std::string& part);

class Process {
  public:
    // Runs a shell command; standard output and error go to the files `output` and `output`.err.
    Process(const std::string& command, std::string output);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // Writes a line to its standard input.
    void say(const std::string& line) const;
    // The exit status, or minus the signal that ended it; `stillRunning` after the deadline.
    int waitForEnd(Deadline deadline = Deadline(10000));
    // Sends the signal and waits.
    int end(int signalNumber, Deadline deadline = Deadline(10000));

    std::string output() const { return fileText(outputFile); }
    std::string errors() const { return fileText(outputFile + ".err"); }
    // Entries of a folder of its /proc entry, such as "fd" or "task".
    std::size_t countOf(const char* procFolder) const;
    // A number of its /proc status, such as "VmRSS:" in KiB.
    long statusValue(const std::string& name) const;
    std::filesystem::path proc() const { return "/proc/" + std::to_string(child); }

    static constexpr int stillRunning = 1000;

  private:
    std::string outputFile;
    int child = -1;
    int input = -1;
    int ended = stillRunning;
};
