// The error class of the program. Thrown by value and caught by reference at the boundaries of
// loops, threads and callbacks, which log it and continue. At startup it ends the program.
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
    int errorNumber; // -1: none; 0 is an error number too
};

// Every throw in this program has this code.
constexpr int exceptionCode = 10;
constexpr int noErrorNumber = -1;

// "<prefix><file>:<line>: <message>", followed by a space and the error number if there is one.
std::string exceptionRecord(const char* prefix, const Exception& exception);
