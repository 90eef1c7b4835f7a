#include "Instructions.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace {

double totalOf(const std::filesystem::path& file) {
    const std::string key = "totals: ";
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(key, 0) == 0) {
            return std::stod(line.substr(key.size()));
        }
    }
    throw std::runtime_error("no total in " + file.string());
}

} // namespace

std::string callgrindCommand(const std::string& file) {
    return VALGRIND_PROGRAM " -q --tool=callgrind --separate-threads=yes --callgrind-out-file=" +
           file;
}

Instructions takeInstructions(const std::string& file) {
    Instructions counted{0, 0};
    const std::filesystem::path begin(file);
    std::filesystem::path mainFile = file + "-01";
    counted.mainThread = totalOf(mainFile);
    // One file a thread; the one without a number holds nothing.
    for (const auto& entry : std::filesystem::directory_iterator(begin.parent_path())) {
        const std::string name = entry.path().filename();
        if (name.rfind(begin.filename().string() + "-", 0) == 0) {
            counted.allThreads += totalOf(entry.path());
            std::filesystem::remove(entry.path());
        }
    }
    std::filesystem::remove(begin);
    return counted;
}
