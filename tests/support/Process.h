// Child programs of the tests, their output and their end. Children die with their Process object.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

using Deadline = std::chrono::milliseconds;

// Polls until `condition` holds; false when it does not within the deadline.
bool eventually(const std::function<bool()>& condition, Deadline deadline = Deadline(10000));

std::string fileText(const std::filesystem::path& path);
std::size_t occurrences(const std::string& text, const std::string& part);

class Process {
  public:
    // Standard output and error go to the files `output` and `output`.err.
    Process(const std::vector<std::string>& command, std::filesystem::path output,
            const std::vector<std::string>& environment = {});
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    void send(int signalNumber) const;
    // Writes a line to its standard input.
    void say(const std::string& line) const;
    // The exit status, or minus the signal that ended it; `stillRunning` after the deadline.
    int waitForEnd(Deadline deadline = Deadline(10000));
    int stop();
    bool isRunning() { return waitForEnd(Deadline(0)) == stillRunning; }

    std::string output() const { return fileText(outputFile); }
    std::string errors() const { return fileText(outputFile.string() + ".err"); }
    // Entries of a folder of its /proc entry, such as "fd" or "task".
    std::size_t countOf(const char* procFolder) const;

    static constexpr int stillRunning = 1000;
    int pid() const { return child; }

  private:
    std::filesystem::path outputFile;
    int child = -1;
    int input = -1;
    int ended = stillRunning;
};
