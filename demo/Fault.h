// The faults that tests switch on: what the stand-in cloud does with a request that it would
// otherwise answer in the normal way. Any thread may call these.
#pragma once

#include <httplib.h>

#include <string>

struct Fault {
    std::string name = "ok"; // the command's first word
    int number = 0;          // its second one: an HTTP status, or milliseconds
};

// Reads a command such as "status 500" into `fault`. False, and `fault` untouched, when it is none.
bool parseFault(const std::string& command, Fault& fault);

// The command that `fault` was read from.
std::string commandText(const Fault& fault);

// Makes `response` the answer to an accepted request under `fault`; `body` is the JSON text of the
// normal one.
void prepareAnswer(const Fault& fault, const httplib::Request& request, const std::string& body,
                   httplib::Response& response);

// Fills `response` with JSON text.
void setJson(httplib::Response& response, int status, const std::string& body);
