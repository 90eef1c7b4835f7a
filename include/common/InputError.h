// Input that the program cannot use. At startup, main writes the message to standard error and ends
// the program.
#pragma once

#include <string>

struct InputError {
    std::string message;
};
