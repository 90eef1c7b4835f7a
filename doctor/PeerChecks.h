// Judges what the cloud and the broker answered. Pure functions, usable from any thread.
#pragma once

#include "Verdict.h"

#include <ctime>
#include <curl/curl.h>

struct CloudFacts {
    std::string url; // masked
    bool verified = false;
    int authorityError = 0; // errno of reading the file of the one authority
    CURLcode code = CURLE_OK;
    std::string words; // libcurl's
    long verifyCode = 0;
    bool resolved = false;
    bool connected = false;
    bool secured = false;
    long status = 0;
    // 0 and empty where the peer did not say.
    std::time_t date = 0;
    std::time_t dateTaken = 0; // when it came, by this clock
    std::string certificate;   // one that is refused
};

Verdict judgeCloud(const CloudFacts& facts);
Verdict judgeClock(const CloudFacts& facts, std::time_t now);
Verdict judgeSignature(const std::string& path, long status, const std::string& fingerprint);

struct BrokerFacts {
    std::string address;
    std::string user;   // empty: anonymous
    std::string words;  // why there is no answer
    int answer = -1;    // to the connection; -1: none
    bool linked = true; // the daemon is connected, as far as can be seen
    bool ended = false; // by the broker, before anything was heard
    bool denied = false;
    bool heard = false;
    int published = -1; // reason code; -1: none
};

Verdict judgeBroker(const BrokerFacts& facts);
Verdict judgeEcho(const BrokerFacts& facts);
Verdict judgeReplies(const BrokerFacts& facts);
