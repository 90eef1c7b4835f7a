#include "VeyraServer/Configuration.h"

#include "VeyraServer/Version.h"
#include "common/Log.h"
#include "common/ProcessState.h"

#include <fstream>
#include <sstream>

namespace {

void logToGivenFile(const CommandLine& commandLine) {
    if (commandLine.logFile) {
        ZEP::Logger::setup(ZEP::Logger::FILE_MODE, commandLine.logFile->c_str());
    }
}

ZEP::Logger::PrintMode printMode(bool toSyslog, bool toConsole) {
    if (toSyslog) {
        return toConsole ? ZEP::Logger::CONSOLE_AND_SYSLOG_MODE : ZEP::Logger::SYSLOG_MODE;
    }
    return toConsole ? ZEP::Logger::CONSOLE_AND_FILE_MODE : ZEP::Logger::FILE_MODE;
}

} // namespace

bool readConfiguration(const CommandLine& commandLine) {
    const char* path = commandLine.configurationFile.c_str();
    std::ifstream file(path);
    if (!file) {
        logToGivenFile(commandLine);
        VEYRA_LOG(ERROR, "Configuration file not found [%s]", path);
        return false;
    }
    std::ostringstream text; // stays empty for a directory, which can be opened
    text << file.rdbuf();
    if (!parseFile(text.str(), configurationForStartup())) {
        logToGivenFile(commandLine);
        VEYRA_LOG(ERROR, "Failed to parse config file [%s], invalid JSON", path);
        return false;
    }
    return true;
}

void setUpLogger(const CommandLine& commandLine) {
    Json::Value& root = configurationForStartup();
    if (root.isMember("log") && root["log"].isMember("level")) {
        ZEP::Logger::setPrintLevel(root["log"]["level"].asUInt(), false);
    }
    const bool toSyslog = root["log"]["syslog"].asBool();
    const bool toConsole = root["log"]["console"].asBool();
    const std::string logFile = commandLine.logFileOrDefault();
    ZEP::Logger::setup(printMode(toSyslog, toConsole), toSyslog ? nullptr : logFile.c_str());
    VEYRA_LOG(INFO, "Lora VEYRA Server started, version %s", programVersion);
}

void completeUpstreamPort() {
    Json::Value& udp = configurationForStartup()["udp"];
    if (!udp.isMember("veyraPort")) {
        udp["veyraPort"] = 1790;
    }
}

void logConfiguration() {
    VEYRA_LOG(INFO, "VEYRA Server Config --------------------- \r\n%s",
              configuration().toStyledString().c_str());
    VEYRA_LOG(INFO, "-------------------------------------------");
}
