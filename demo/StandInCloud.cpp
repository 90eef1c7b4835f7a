// stand-in-cloud: an HTTPS server on 127.0.0.1 that plays the Veyra cloud for demo and tests.
//
//   stand-in-cloud --certificate FILE --key FILE --secret TEXT [--port N]
//
// Without a port, or with 0, the kernel gives one. The first line on standard output is
// "listening on PORT"; every request then makes one line of compact JSON there, written when the
// request has been judged and before it is answered:
//
//   number      running number of the request, from 1
//   connection  the client's port: the same for all requests on one connection
//   method, path, headers (name -> value), body
//   status      what it is answered with
//   verdict     "signature valid", or why the request is refused
//   fault       the fault that was in force; absent when there was none
//
// Commands on standard input, one a line, change how accepted requests are answered from then on;
// refused ones are always refused. Each is acknowledged with a line "fault: COMMAND", or "unknown
// fault: COMMAND" when it changes nothing.
//
//   ok          200 with {"accepted":true,"id":ID OF THE REQUEST,"number":N}
//   status N    status N with a small JSON body (204 and 304 without)
//   text        200 with the body: ok
//   nul         200, the normal body followed by a NUL byte and garbage
//   gzip        200, the normal body compressed, if the client offers to unpack it
//   redirect    307 to a path that is answered normally
//   cut         200, the connection closed in the middle of the body
//   stall N     the normal answer, after N milliseconds
//   deep        200 with 2000 JSON arrays inside each other
//
// It ends with exit status 0 on SIGTERM or SIGINT. The end of standard input ends the commands
// only.
#include "Fault.h"
#include "RequestCheck.h"

#include <httplib.h>
#include <json/json.h>

#include <csignal>
#include <pthread.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace {

struct Options {
    std::string certificate;
    std::string key;
    std::string secret;
    int port = 0;
};

std::string compactJson(const Json::Value& value) {
    static const Json::StreamWriterBuilder compact = [] {
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        return builder;
    }();
    return Json::writeString(compact, value);
}

void printLine(const std::string& line) {
    const auto text = line + "\n";
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

class StandInCloud {
  public:
    explicit StandInCloud(std::string sharedSecret)
        : secret(std::move(sharedSecret)) {}

    void answer(const httplib::Request& request, httplib::Response& response) {
        const auto judgement = judgeRequest(request, secret);
        const auto inForce = decide(request, judgement, response);
        // Not under the lock: other requests and the commands go on meanwhile.
        if (judgement.status == 200 && inForce.name == "stall") {
            std::this_thread::sleep_for(std::chrono::milliseconds(inForce.number));
        }
    }

    void obey(const std::string& command) {
        const std::lock_guard<std::mutex> guard(mutex);
        printLine((parseFault(command, fault) ? "fault: " : "unknown fault: ") + command);
    }

  private:
    // Under one lock, so that the lines' numbers ascend and each names the fault it met.
    Fault decide(const httplib::Request& request, const Judgement& judgement,
                 httplib::Response& response) {
        const std::lock_guard<std::mutex> guard(mutex);
        ++number;
        Json::Value body;
        if (judgement.status != 200) {
            body["error"] = judgement.reason;
            setJson(response, judgement.status, compactJson(body));
        } else {
            body["accepted"] = true;
            body["id"] = judgement.id;
            body["number"] = number;
            prepareAnswer(fault, request, compactJson(body), response);
        }
        printLine(compactJson(record(request, judgement, response.status)));
        return fault;
    }

    Json::Value record(const httplib::Request& request, const Judgement& judgement,
                       int status) const {
        Json::Value line;
        line["number"] = number;
        line["connection"] = request.remote_port;
        line["method"] = request.method;
        line["path"] = request.target;
        line["headers"] = Json::objectValue;
        for (const auto& header : request.headers) {
            if (header.first != "REMOTE_ADDR" && header.first != "REMOTE_PORT" &&
                header.first != "LOCAL_ADDR" && header.first != "LOCAL_PORT") { // the library's own
                line["headers"][header.first] = header.second;
            }
        }
        line["body"] = request.body;
        line["status"] = status;
        line["verdict"] = judgement.reason;
        if (fault.name != "ok") {
            line["fault"] = commandText(fault);
        }
        return line;
    }

    const std::string secret;
    std::mutex mutex; // guards the members below and standard output
    Fault fault;
    Json::UInt64 number = 0;
};

void setUp(httplib::SSLServer& server, StandInCloud& cloud) {
    const auto answer = [&cloud](const httplib::Request& request, httplib::Response& response) {
        cloud.answer(request, response);
    };
    server.Get(".*", answer).Post(".*", answer).Put(".*", answer);
    server.Delete(".*", answer).Patch(".*", answer).Options(".*", answer);
    server.set_tcp_nodelay(true);
    server.set_keep_alive_max_count(std::numeric_limits<std::size_t>::max());
    server.set_keep_alive_timeout(86400); // seconds: a day
    // The library's own options would let two servers share one port without a word.
    server.set_socket_options([](socket_t socket) {
        const int on = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    });
}

int bindServer(httplib::SSLServer& server, int port) {
    if (port == 0) {
        return server.bind_to_any_port("127.0.0.1");
    }
    return server.bind_to_port("127.0.0.1", port) ? port : -1;
}

void readCommands(StandInCloud& cloud) {
    std::string command;
    while (std::getline(std::cin, command)) {
        cloud.obey(command);
    }
}

bool readOptions(int argc, char** argv, Options& options) {
    if (argc % 2 == 0) {
        return false;
    }
    for (int i = 1; i < argc; i += 2) {
        const std::string name = argv[i];
        const std::string value = argv[i + 1];
        if (name == "--certificate") {
            options.certificate = value;
        } else if (name == "--key") {
            options.key = value;
        } else if (name == "--secret") {
            options.secret = value;
        } else if (name == "--port") {
            options.port = std::stoi(value);
        } else {
            return false;
        }
    }
    return !options.certificate.empty() && !options.key.empty() && !options.secret.empty();
}

[[noreturn]] void fail(const std::string& message) {
    std::cerr << "stand-in-cloud: " << message << std::endl;
    std::_Exit(1);
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    if (!readOptions(argc, argv, options)) {
        fail("--certificate FILE --key FILE --secret TEXT [--port N]");
    }

    // Blocked before any thread is made, so that only sigwait below ever sees them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    httplib::SSLServer server(options.certificate.c_str(), options.key.c_str());
    if (!server.is_valid()) {
        fail("cannot use " + options.certificate + " with " + options.key);
    }
    StandInCloud cloud(options.secret);
    setUp(server, cloud);
    const int port = bindServer(server, options.port);
    if (port < 0) {
        fail("cannot listen on port " + std::to_string(options.port));
    }
    printLine("listening on " + std::to_string(port));

    std::thread([&server] {
        server.listen_after_bind();
        fail("stopped listening");
    }).detach();
    std::thread([&cloud] { readCommands(cloud); }).detach();

    int signalNumber = 0;
    sigwait(&stopSignals, &signalNumber);
    // At once: an orderly stop of the library would wait for connections that clients keep open.
    std::_Exit(0);
}
