#include "Fault.h"

#include "RequestCheck.h"

#include <zlib.h>

#include <set>
#include <sstream>
#include <stdexcept>

namespace {

constexpr int deepestArray = 2000;

bool takesNumber(const std::string& name) {
    return name == "status" || name == "stall";
}

bool isKnown(const std::string& name) {
    static const std::set<std::string> known = {"ok",       "status", "text",  "nul", "gzip",
                                                "redirect", "cut",    "stall", "deep"};
    return known.count(name) != 0;
}

std::string gzip(const std::string& text) {
    constexpr int gzipWindowBits = 15 + 16; // 16 asks for a gzip header instead of zlib's own
    z_stream stream{};
    if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, gzipWindowBits, 8,
                     Z_DEFAULT_STRATEGY) != Z_OK) {
        throw std::runtime_error("deflateInit2 failed");
    }
    std::string packed(deflateBound(&stream, text.size()), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(packed.data());
    stream.avail_out = static_cast<uInt>(packed.size());
    const int result = deflate(&stream, Z_FINISH);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    if (result != Z_STREAM_END) {
        throw std::runtime_error("deflate failed");
    }
    return packed;
}

void answerStatus(int status, httplib::Response& response) {
    const bool bodyAllowed = status != 204 && status != 304;
    setJson(response, status,
            bodyAllowed ? "{\"status\":" + std::to_string(status) + "}" : std::string());
}

void answerGzip(const httplib::Request& request, const std::string& body,
                httplib::Response& response) {
    if (request.get_header_value("Accept-Encoding").find("gzip") == std::string::npos) {
        return setJson(response, 200, body);
    }
    setJson(response, 200, gzip(body));
    response.set_header("Content-Encoding", "gzip");
}

// A moved request is answered, or the client would go round for ever. 307 lets a POST stay one.
void answerRedirect(const httplib::Request& request, const std::string& body,
                    httplib::Response& response) {
    if (isMovedPath(request.target)) {
        return setJson(response, 200, body);
    }
    setJson(response, 307, "{}");
    response.set_header("Location", movedPrefix + request.target.substr(apiPrefix.size()));
}

// Announces the whole body, sends half of it, and has the library close the connection.
void answerCut(const std::string& body, httplib::Response& response) {
    response.status = 200;
    response.set_content_provider(body.size(), "application/json",
                                  [body](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                                      return offset == 0 &&
                                             sink.write(body.data(), body.size() / 2);
                                  });
}

} // namespace

bool parseFault(const std::string& command, Fault& fault) {
    std::istringstream words(command);
    Fault parsed;
    std::string rest;
    if (!(words >> parsed.name) || !isKnown(parsed.name)) {
        return false;
    }
    if (takesNumber(parsed.name) && (!(words >> parsed.number) || parsed.number < 0)) {
        return false;
    }
    if (parsed.name == "status" && (parsed.number < 200 || parsed.number > 599)) {
        return false;
    }
    if (words >> rest) {
        return false;
    }
    fault = parsed;
    return true;
}

std::string commandText(const Fault& fault) {
    return takesNumber(fault.name) ? fault.name + " " + std::to_string(fault.number) : fault.name;
}

void setJson(httplib::Response& response, int status, const std::string& body) {
    response.status = status;
    // The library compresses what it knows as text whenever the client offers to unpack it. The
    // parameter keeps it from doing so: compressed answers are a fault of their own here.
    response.set_content(body, "application/json; charset=utf-8");
}

void prepareAnswer(const Fault& fault, const httplib::Request& request, const std::string& body,
                   httplib::Response& response) {
    if (fault.name == "status") {
        answerStatus(fault.number, response);
    } else if (fault.name == "text") {
        setJson(response, 200, "ok");
    } else if (fault.name == "nul") {
        setJson(response, 200, body + '\0' + "garbage}{");
    } else if (fault.name == "gzip") {
        answerGzip(request, body, response);
    } else if (fault.name == "redirect") {
        answerRedirect(request, body, response);
    } else if (fault.name == "cut") {
        answerCut(body, response);
    } else if (fault.name == "deep") {
        setJson(response, 200, std::string(deepestArray, '[') + std::string(deepestArray, ']'));
    } else { // "ok", and "stall", whose answer is a normal one
        setJson(response, 200, body);
    }
}
