// The checks that the cloud makes of a gateway's request before it takes it.
//
// Nothing here is shared with the daemon, its digest least of all: a fault on its side must not be
// repeated on this one. Pure functions of their arguments; any thread may call them.
#pragma once

#include <httplib.h>
#include <json/json.h>

#include <string>

struct Judgement {
    int status;         // 200, or the status of the refusal
    std::string reason; // "signature valid", or what the request lacks
    Json::Value id;     // the request's data.id, null when it has none
};

// `secret` is what the gateway and the cloud share. A wrong signature is answered with 401,
// anything malformed with 400.
Judgement judgeRequest(const httplib::Request& request, const std::string& secret);

// A moved path stands in for the original one and is signed as the original: a client that follows
// a redirect repeats the headers of its first request.
extern const std::string apiPrefix;   // "/api/"
extern const std::string movedPrefix; // what "/api/" becomes in a moved path
bool isMovedPath(const std::string& path);
