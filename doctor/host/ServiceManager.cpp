#include "host/ServiceManager.h"

#include "host/Files.h"

#include <ZEP/Text.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>

namespace fs = std::filesystem;

namespace {

constexpr const char* initScript = "/etc/init.d/lora-veyra-server";
constexpr const char* scriptUser = "lora-veyra";

// Without systemd the init script starts the daemon, so the unit must be ignored.
bool unitCounts() {
    return systemdRuns() || access(initScript, F_OK) != 0;
}

// A fixed command with an empty environment, so that the caller's environment cannot redirect it.
std::string askSystemd() {
    const std::unique_ptr<FILE, int (*)(FILE*)> output(
        popen( // NOLINT(cert-env33-c): the command is fixed
            "exec /usr/bin/env -i /usr/bin/timeout 3 /usr/bin/systemctl show "
            "--property=MainPID,Result,LoadState lora-veyra-server.service 2>/dev/null",
            "re"),
        pclose);
    std::string text;
    std::array<char, 4096> part{};
    while (output && std::fgets(part.data(), part.size(), output.get()) != nullptr) {
        text += part.data();
    }
    return text;
}

// The value of the last line "NAME=VALUE"; empty when there is none. As in systemd, an empty value
// discards the earlier values.
std::string lastValue(const std::string& text, const std::string& name) {
    std::istringstream lines(text);
    std::string value;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(name + "=", 0) == 0) {
            value = ZEP::Text::trim(line.substr(name.size() + 1));
        }
    }
    return value;
}

int numberIn(const std::string& text) {
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

// The unit file that counts, followed by its drop-ins.
std::string unitText() {
    const std::string files[] = {"/etc/systemd/system/lora-veyra-server.service",
                                 "/run/systemd/system/lora-veyra-server.service",
                                 "/lib/systemd/system/lora-veyra-server.service"};
    std::string unit;
    std::string dropIns;
    for (const std::string& file : files) {
        if (unit.empty()) {
            unit = textOf(file);
        }
        std::error_code error;
        for (const auto& dropIn : fs::directory_iterator(file + ".d", error)) {
            dropIns += '\n';
            dropIns += textOf(dropIn.path());
        }
    }
    return unit + dropIns;
}

// The value of an option such as -c in a start command; empty when it has none, or when systemd
// would replace a part of the value, such as a specifier.
std::string optionOf(const std::string& command, const std::string& option) {
    std::istringstream words(command);
    std::string word;
    while (words >> word && word != option) {
    }
    words >> word;
    const bool isPlain = word.find_first_of("%$\"'\\") == std::string::npos;
    return words.fail() || !isPlain ? "" : word;
}

} // namespace

bool systemdRuns() {
    return access("/run/systemd/system", F_OK) == 0;
}

ServiceState readServiceState() {
    ServiceState state;
    if (systemdRuns()) {
        const std::string answer = askSystemd();
        state.mainPid = numberIn(lastValue(answer, "MainPID"));
        state.result = lastValue(answer, "Result");
        state.isMasked = lastValue(answer, "LoadState") == "masked";
    } else {
        state.mainPid = numberIn(textOf("/run/lora-veyra-server.pid"));
    }
    if (unitCounts()) {
        const std::string unit = unitText();
        state.user = lastValue(unit, "User");
        const std::string start = lastValue(unit, "ExecStart");
        state.configurationFile = optionOf(start, "-c");
        state.logFile = optionOf(start, "-l");
    } else {
        state.user = scriptUser;
        const std::string runAs = lastValue(textOf(initScript), "RUN_AS");
        if (findUser(runAs)) {
            state.user = runAs;
        }
    }
    return state;
}

std::string serviceCommand(const std::string& word) {
    return unitCounts() ? "systemctl " + word + " lora-veyra-server"
                        : std::string(initScript) + " " + word;
}
