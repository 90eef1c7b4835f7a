#include "RequestCheck.h"

#include <openssl/evp.h>

#include <array>
#include <memory>
#include <stdexcept>

const std::string apiPrefix = "/api/";
const std::string movedPrefix = "/api/moved/";

namespace {

struct Refusal {
    int status;
    std::string reason;
};

std::string sha256Hex(const std::string& text) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned length = 0;
    if (EVP_Digest(text.data(), text.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) {
        throw std::runtime_error("SHA-256 is not available");
    }
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned i = 0; i < length; ++i) {
        hex += digits[digest[i] >> 4];
        hex += digits[digest[i] & 15];
    }
    return hex;
}

// True for text like 2026-11-21T04:25:47.123456Z.
bool isTimestamp(const std::string& text) {
    static const std::string form = "dddd-dd-ddTdd:dd:dd.ddddddZ";
    if (text.size() != form.size()) {
        return false;
    }
    for (std::size_t i = 0; i < form.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (form[i] == 'd' ? !digit : text[i] != form[i]) {
            return false;
        }
    }
    return true;
}

std::string signedPath(const std::string& path) {
    return isMovedPath(path) ? apiPrefix + path.substr(movedPrefix.size()) : path;
}

// The value of a header that may stand there once, empty when it is missing.
std::string singleHeader(const httplib::Request& request, const std::string& name) {
    if (request.get_header_value_count(name) > 1) {
        throw Refusal{400, name + " is there more than once"};
    }
    return request.get_header_value(name);
}

void requireHeader(const httplib::Request& request, const char* name, const std::string& value) {
    const auto found = singleHeader(request, name);
    if (found != value) {
        throw Refusal{400, std::string(name) + " is \"" + found + "\", not \"" + value + "\""};
    }
}

void checkMethodAndHeaders(const httplib::Request& request) {
    if (request.method != "POST" && request.method != "PUT" && request.method != "GET") {
        throw Refusal{400, "method " + request.method + " is not taken"};
    }
    if (request.target.rfind(apiPrefix, 0) != 0) {
        throw Refusal{400, "path does not begin with " + apiPrefix};
    }
    requireHeader(request, "Accept", "application/json");
    requireHeader(request, "Content-Type", "application/json");
    requireHeader(request, "charsets", "utf-8");
    // The HTTP library drops headers without a value, so empty and missing look the same here.
    if (singleHeader(request, "X-API-SERIAL").empty()) {
        throw Refusal{400, "X-API-SERIAL is missing or empty"};
    }
    if (!isTimestamp(singleHeader(request, "X-API-TIMESTAMP"))) {
        throw Refusal{400, "X-API-TIMESTAMP is not of the form YYYY-MM-DDTHH:MM:SS.uuuuuuZ"};
    }
}

void checkSignature(const httplib::Request& request, const std::string& secret) {
    const auto text =
        secret + request.get_header_value("X-API-TIMESTAMP") + signedPath(request.target);
    if (singleHeader(request, "X-API-HASH") != sha256Hex(text)) {
        throw Refusal{401, "X-API-HASH does not match"};
    }
}

Json::Value parseBody(const std::string& text) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value body;
    Json::String errors;
    try {
        if (!reader->parse(text.data(), text.data() + text.size(), &body, &errors)) {
            throw Refusal{400, "body is not JSON"};
        }
    } catch (const Json::Exception& error) { // nested too deep
        throw Refusal{400, std::string("body is not JSON: ") + error.what()};
    }
    return body;
}

// Returns the body's data.id, null when there is none.
Json::Value checkBody(const httplib::Request& request) {
    if (request.method == "GET") {
        if (request.has_header("Content-Length") || request.has_header("Transfer-Encoding")) {
            throw Refusal{400, "GET with a body"};
        }
        return {};
    }
    const auto body = parseBody(request.body);
    if (!body.isObject()) {
        throw Refusal{400, "body is not a JSON object"};
    }
    for (const char* name : {"brantle_serial", "token", "timestamp"}) {
        if (body.isMember(name)) {
            throw Refusal{400, std::string("body has a member ") + name};
        }
    }
    const auto& data = body["data"];
    return data.isObject() ? data["id"] : Json::Value();
}

} // namespace

bool isMovedPath(const std::string& path) {
    return path.rfind(movedPrefix, 0) == 0;
}

Judgement judgeRequest(const httplib::Request& request, const std::string& secret) {
    try {
        checkMethodAndHeaders(request);
        checkSignature(request, secret);
        return {200, "signature valid", checkBody(request)};
    } catch (const Refusal& refusal) {
        return {refusal.status, refusal.reason, {}};
    }
}
