// Sends one signed HTTPS request to the cloud.
//
// Requests are sent one at a time over one handle, so that its connection is reused. curlMutex is
// held for the whole request. In this program only the main thread sends requests.
#pragma once

#include "common/Json.h"

#include <curl/curl.h>
#include <mutex>
#include <string>

// Created at startup, released when the program closes; null if it could not be created. Every
// completed request leaves the handle with libcurl's default options and its connection open.
extern CURL* cloudCurlHandle;
extern std::mutex curlMutex;

// The file with the only CA certificate that is trusted for the cloud.
constexpr const char* cloudCaFile = "/etc/ssl/certs/DigiCert_Global_Root_CA.pem";

// Whether the server of a request to `url` is verified. True if the URL contains "https:" anywhere.
bool isVerified(const std::string& url);

// Sets the options on `handle` that decide which server a request to `url` trusts. Throws
// std::runtime_error when libcurl rejects one of them: the caller must not send the request.
void setTrust(CURL* handle, const std::string& url);

// The serial number for bodies that have none. This program never assigns it.
extern std::string gatewaySerial;

// Sends `body` to `url` and parses the response into `response`.
//   body             the members "brantle_serial", "token" and "timestamp" are removed and sent as
//                    headers; the rest is sent as compact JSON
//   response         the parsed response; null when there is none or it is not JSON
//   collectResponse  false leaves the text of the response to libcurl, which prints it
//   method           "PUT", "GET" (no body), or any other text for a POST
// Returns true when the transfer completed with status 200 or 201. The only time limits are
// libcurl's own. Failures are logged here.
//
// Some faults cause an exception in this function: a header member that is not a string, exhausted
// memory, or a trust option that libcurl rejects. The function then returns false, but curlMutex
// stays locked: the next call never returns.
bool sendCloudRequest(CURL* handle, const std::string& url, Json::Value& body,
                      Json::Value& response, bool collectResponse, const std::string& method);

// Whether a response of at least `largeBytes` has arrived since the last call, successful or not.
bool takeLargeResponse();

// libcurl write callback: appends the received bytes to `buffer`. Returns the number of bytes that
// it stored. If memory is exhausted, it returns 0, and libcurl aborts the transfer.
std::size_t appendToString(char* data, std::size_t size, std::size_t nmemb, std::string* buffer);
