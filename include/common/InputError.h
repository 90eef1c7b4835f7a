// Input that the program cannot work with. main writes the message to standard error and ends.
#pragma once

#include <string>

struct InputError {
    std::string message;
};
