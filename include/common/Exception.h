// The program's one error class, thrown by value and caught by reference at the boundaries of
// loops, threads and callbacks, where it is logged and work goes on; at start-up it ends the
// program.
#pragma once

#include <string>

class Exception {
  public:
    Exception(int code, unsigned line, std::string file, std::string message, int errorNumber);
    virtual ~Exception() = default;

    int code;
    unsigned line; // source line of the throw
    std::string file;
    std::string message;
    int errorNumber; // -1: none; 0 is a number like any other
};

// The code of every throw in this program.
constexpr int exceptionCode = 10;
constexpr int noErrorNumber = -1;

// "<prefix><file>:<line>: <message>", then a blank and the error number when there is one.
std::string exceptionRecord(const char* prefix, const Exception& exception);
