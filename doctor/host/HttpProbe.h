// Asks the cloud as the daemon would: with the daemon's CA file, proxies and request function, but
// with time limits. One thread; the caller owns the results. The caller must initialise libcurl
// first.
#pragma once

#include "host/Certificates.h"

#include <ctime>
#include <curl/curl.h>
#include <string>
#include <vector>

struct HttpAnswer {
    CURLcode code = CURLE_OK;
    std::string error;     // libcurl's message for `code`
    int systemError = 0;   // errno of the connection
    long verifyResult = 0; // OpenSSL's result for the certificate
    std::string addresses; // that were tried, such as "2001:db8::1, 192.0.2.1"
    bool isResolved = false;
    bool isConnected = false;
    bool isEncrypted = false;
    long status = 0;
    std::string contentType, location;
    bool isUnverified = false; // nothing proves that the response comes from the cloud
    std::time_t date = 0;      // of the response; 0 when it has none
    std::time_t ageS = 0;      // seconds since a cache received the response from the server
    std::time_t dateTaken = 0; // when it arrived, by this machine's clock
};

// An unsigned HEAD request.
HttpAnswer askCloud(const std::string& url, long limitMs);

// The status of a signed GET request for `path`; 0 when no response arrived.
long askSigned(const std::string& url, const std::string& path, const std::string& secret,
               long limitMs);

// Sends an unsigned HEAD request without verification. The doctor sends no other unverified request
// to an "https:" URL. Returns the certificates that the server sends, its own first, and stores the
// date of the response in `answer`.
std::vector<Certificate> lookAtCertificates(const std::string& url, long limitMs,
                                            HttpAnswer& answer);

// The host name in a URL; empty when there is none.
std::string hostOf(const std::string& url);

// Whether the host and port answer a TLS handshake.
bool speaksTls(const std::string& host, int port, long limitMs);
