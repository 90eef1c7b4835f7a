// Counts a program's instructions with callgrind.
#pragma once

#include <string>

struct Instructions {
    double allThreads;
    double mainThread;
};

// What to put in front of a command so that its counts go to files that begin with `file`.
std::string callgrindCommand(const std::string& file);

// The counts of the program that has ended; removes the files.
Instructions takeInstructions(const std::string& file);
