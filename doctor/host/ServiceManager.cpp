#include "host/ServiceManager.h"

#include "host/Files.h"

#include <ZEP/Text.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
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

// Lines "NAME=VALUE" from systemd, which reads the unit and its drop-ins. The command is fixed and
// has an empty environment, so the caller's environment cannot redirect it.
std::string askSystemd() {
    const std::unique_ptr<FILE, int (*)(FILE*)> output(
        popen( // NOLINT(cert-env33-c): the command is fixed
            "exec /usr/bin/env -i /usr/bin/timeout 3 /usr/bin/systemctl show --property="
            "MainPID,Result,LoadState,User,DynamicUser,Group,SupplementaryGroups,Environment,"
            "ExecStart lora-veyra-server.service 2>/dev/null",
            "re"),
        pclose);
    std::string text;
    std::array<char, 4096> part{};
    while (output && std::fgets(part.data(), part.size(), output.get()) != nullptr) {
        text += part.data();
    }
    return text;
}

// Adds the lines of the section [Service] of a unit file or a drop-in to `text`.
void addServiceSection(const std::string& file, std::string& text) {
    std::istringstream lines(textOf(file));
    bool isService = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind('[', 0) == 0) {
            isService = line.rfind("[Service]", 0) == 0;
        } else if (isService) {
            text += line + "\n";
        }
    }
}

// The unit file with the highest priority, followed by its drop-ins. As in systemd, a drop-in
// replaces a drop-in with the same name in a directory of lower priority, and the drop-ins are
// sorted by name.
std::string unitText() {
    const std::string files[] = {"/etc/systemd/system/lora-veyra-server.service",
                                 "/run/systemd/system/lora-veyra-server.service",
                                 "/usr/local/lib/systemd/system/lora-veyra-server.service",
                                 "/lib/systemd/system/lora-veyra-server.service"};
    std::string text;
    std::map<std::string, std::string> dropIns; // paths, by name
    for (const std::string& file : files) {
        if (text.empty()) {
            addServiceSection(file, text);
        }
        std::error_code error;
        for (const auto& dropIn : fs::directory_iterator(file + ".d", error)) {
            if (dropIn.path().extension() == ".conf") {
                dropIns.emplace(dropIn.path().filename(), dropIn.path());
            }
        }
    }
    for (const auto& [name, path] : dropIns) {
        addServiceSection(path, text);
    }
    return text;
}

// The values of the lines "NAME=VALUE". As in systemd, an empty value discards the earlier ones.
std::vector<std::string> valuesOf(const std::string& text, const std::string& name) {
    std::istringstream lines(text);
    std::vector<std::string> values;
    for (std::string line; std::getline(lines, line);) {
        const auto end = line.find('=');
        if (end == std::string::npos || ZEP::Text::trim(line.substr(0, end)) != name) {
            continue;
        }
        values.push_back(ZEP::Text::trim(line.substr(end + 1)));
        if (values.back().empty()) {
            values.clear();
        }
    }
    return values;
}

std::string lastValue(const std::string& text, const std::string& name) {
    const std::vector<std::string> values = valuesOf(text, name);
    return values.empty() ? "" : values.back();
}

// The words of all values, without quotes and backslashes.
std::vector<std::string> wordsOf(const std::string& text, const std::string& name) {
    std::vector<std::string> found;
    for (std::string value : valuesOf(text, name)) {
        const auto isQuote = [](char character) { return character == '"' || character == '\\'; };
        value.erase(std::remove_if(value.begin(), value.end(), isQuote), value.end());
        std::istringstream words(value);
        for (std::string word; words >> word;) {
            found.push_back(word);
        }
    }
    return found;
}

int numberIn(const std::string& text) {
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

// Whether a start command runs the daemon directly, without a wrapper such as a shell or the init
// script, which choose user and options themselves. systemctl prints
// "{ path=PROGRAM ; argv[]=PROGRAM ARGUMENTS ; ... }".
bool startsDaemon(const std::string& command) {
    std::istringstream words(command);
    std::string program;
    words >> program;
    if (program == "{") {
        words >> program;
    }
    const bool isScript = program.find(initScript) != std::string::npos;
    return !isScript && fs::path(program).filename() == "lora-veyra-server";
}

// The absolute path after an option such as -c in a start command. Empty if there is no such path,
// or if a space, a quote or a systemd variable could make the path incomplete.
std::string optionOf(const std::string& command, const std::string& option) {
    std::istringstream words(command);
    std::string word;
    while (words >> word && word != option) {
    }
    std::string value;
    std::string next;
    words >> value >> next;
    const bool isPlain = value.find_first_of("%$\"'\\") == std::string::npos;
    const bool isWhole = next.empty() || next.front() == '-' || next == ";";
    const bool isAbsolute = value.rfind('/', 0) == 0;
    if (!isPlain || !isWhole || !isAbsolute) {
        return {};
    }
    return fs::path(value).lexically_normal();
}

void takeUnit(const std::string& unit, ServiceState& state) {
    state.user = lastValue(unit, "User");
    state.hasDynamicUser = lastValue(unit, "DynamicUser") == "yes";
    state.group = lastValue(unit, "Group");
    state.groups = wordsOf(unit, "SupplementaryGroups");
    state.environment = wordsOf(unit, "Environment");
    const std::string start = lastValue(unit, "ExecStart");
    if (startsDaemon(start)) {
        if (state.user.empty()) {
            state.user = "root";
        }
        state.configurationFile = optionOf(start, "-c");
        state.logFile = optionOf(start, "-l");
    }
}

} // namespace

bool systemdRuns() {
    return access("/run/systemd/system", F_OK) == 0;
}

ServiceState readServiceState() {
    ServiceState state;
    std::string answer;
    if (systemdRuns()) {
        answer = askSystemd();
    }
    state.loadState = lastValue(answer, "LoadState");
    if (!state.loadState.empty()) {
        state.mainPid = numberIn(lastValue(answer, "MainPID"));
        state.result = lastValue(answer, "Result");
        takeUnit(answer, state);
        return state;
    }
    state.mainPid = numberIn(textOf("/run/lora-veyra-server.pid"));
    if (unitCounts()) {
        takeUnit(unitText(), state);
        return state;
    }
    state.user = scriptUser;
    const std::string runAs = lastValue(textOf(initScript), "RUN_AS");
    if (findUser(runAs)) {
        state.user = runAs;
    }
    return state;
}

std::string serviceCommand(const std::string& word) {
    return unitCounts() ? "systemctl " + word + " lora-veyra-server"
                        : std::string(initScript) + " " + word;
}
