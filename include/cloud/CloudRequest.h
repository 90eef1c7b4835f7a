// One signed HTTPS request to the cloud.
//
// Requests go one at a time over one handle, so that its connection is reused. curlMutex is held
// for the whole of a request; in this program only the main thread makes them.
#pragma once

#include "common/Json.h"

#include <curl/curl.h>
#include <pthread.h>
#include <string>

// Made by start-up, released when the program closes; null if it could not be made. Every request
// leaves it with libcurl's default options and its connection open.
extern CURL* cloudCurlHandle;
extern pthread_mutex_t curlMutex;

// The one authority that the cloud's certificate may come from.
constexpr const char* cloudCaFile = "/etc/ssl/certs/DigiCert_Global_Root_CA.pem";

// Whether the peer of a request to `url` is verified: "https:" is looked for anywhere in it.
bool isVerified(const std::string& url);

// Sets on `handle` what decides whom a request to `url` trusts. Throws std::bad_alloc when an option
// cannot be stored: nothing goes out with another trust.
void setTrust(CURL* handle, const std::string& url);

// Serial number for bodies that carry none. Nothing assigns it in this program.
extern std::string gatewaySerial;

// Sends `body` to `url` and parses the answer into `response`.
//   body             its members "brantle_serial", "token" and "timestamp" are removed and travel
//                    as headers; the rest is sent as compact JSON
//   response         the parsed answer; null when there is none or it is not JSON
//   collectResponse  false leaves the answer's text to libcurl, which prints it
//   method           "PUT", "GET" (no body), or anything else for a POST
// Returns true when the transfer completed with status 200 or 201. No time limit is set beyond
// libcurl's own. Failures are logged here.
//
// After an exception inside (a header member that is no text, memory exhausted) the result is false
// and curlMutex stays locked: the next call waits for ever.
bool sendCloudRequest(CURL* handle, const std::string& url, Json::Value& body,
                      Json::Value& response, bool collectResponse, const std::string& method);

// Whether an answer of at least `largeBytes` has come since the last call, whatever became of it.
bool takeLargeAnswer();

// libcurl write callback: appends the received bytes to `buffer`. Returns the bytes taken, or 0
// when memory is exhausted, which makes libcurl abort the transfer.
std::size_t appendToString(char* data, std::size_t size, std::size_t nmemb, std::string* buffer);
