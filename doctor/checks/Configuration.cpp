// Whether the daemon can read its configuration file and start with it.
#include "checks/Checks.h"
#include "checks/Settings.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr const char* byteOrderMark = "\xEF\xBB\xBF";

Finding unreadable(const Gateway& gateway, int error) {
    const std::string& path = gateway.configurationFile;
    const std::string reason = std::strerror(error);
    const bool isOwn = gateway.isOwnPath(path);
    if (error == EACCES && !gateway.isRoot) {
        return unknown("configuration.hidden", path, reason + ".", runAsRoot);
    }
    if (error == EACCES && !gateway.mayReach(path)) {
        return bad("configuration.unreadable", path,
                   "The user " + gateway.user.name +
                       " has no permission to enter a directory of this path.",
                   thenRestart("Give this user execute permission (x) for each directory of the "
                               "path, or correct -c in the start command."));
    }
    if (error == EACCES && isOwn) {
        return bad("configuration.unreadable", path,
                   "The user " + gateway.user.name + " cannot read the file: " + reason + ".",
                   thenRestart(command("chgrp " + groupName(gateway.user.gid) + " " + path) +
                               command("chmod 640 " + path)));
    }
    if (error == EACCES) {
        return bad("configuration.unreadable", path,
                   "The user " + gateway.user.name + " cannot read the file: " + reason + ".",
                   thenRestart("Correct -c in the start command, or the permissions of the file."));
    }
    if (error == ELOOP) {
        return bad("configuration.unreadable", path, "The path is a loop of symbolic links.",
                   thenRestart("Replace the symbolic link with the configuration file."));
    }
    if (error == EINVAL) {
        return bad("configuration.unreadable", path, "This is not a regular file.",
                   thenRestart("Correct -c in the start command."));
    }
    return bad("configuration.unreadable", path, reason + ".",
               thenRestart("Put the file there, or correct -c in the start command."));
}

// Parses as the daemon does. Returns the parser's message for the first fault, with line and
// column.
std::string parse(const std::string& text, Json::Value& root) {
    Json::Reader reader;
    try {
        if (reader.parse(text, root, false)) {
            if (root.isObject()) {
                return {};
            }
            return "The file is not a JSON object.";
        }
    } catch (const Json::Exception&) {
        return "The file is nested too deeply.";
    }
    // Such as "* Line 3, Column 5\n  Missing '}' or object member name\nSee Line 1, Column 1".
    std::string words = reader.getFormattedErrorMessages();
    words = words.substr(2, words.find('\n', words.find('\n') + 1) - 2);
    std::replace(words.begin(), words.end(), '\n', ':');
    const auto quoted = words.find("' is not a number"); // the quoted text may be a secret
    if (quoted != std::string::npos) {
        words.replace(words.find('\''), quoted + 1 - words.find('\''), "this");
    }
    return words.substr(0, words.find_last_not_of('.') + 1) + ".";
}

// Finds duplicate keys with a second, strict parse, because the daemon accepts them. Empty when
// there are none.
std::string findDuplicate(const std::string& text) {
    Json::CharReaderBuilder builder;
    builder["rejectDupKeys"] = true;
    builder["collectComments"] = false;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value ignored;
    std::string words;
    if (reader->parse(text.data(), text.data() + text.size(), &ignored, &words)) {
        return {};
    }
    const auto start = words.find("Duplicate key: ");
    if (start == std::string::npos) {
        return {};
    }
    return words.substr(start, words.find('\n', start) - start);
}

Findings parseFindings(Gateway& gateway) {
    const std::string& path = gateway.configurationFile;
    const std::string& text = gateway.configurationText;
    if (text.rfind(byteOrderMark, 0) == 0) {
        return {bad("configuration.byte-order-mark", path,
                    "The file begins with a byte order mark, which is not JSON.",
                    thenRestart("Save the file without a byte order mark."))};
    }
    if (text.rfind("\xFF\xFE", 0) == 0 || text.rfind("\xFE\xFF", 0) == 0) {
        return {bad("configuration.byte-order-mark", path, "The file is in UTF-16.",
                    thenRestart("Save the file as UTF-8 without a byte order mark."))};
    }
    if (text.find('\0') != std::string::npos) {
        return {bad("configuration.invalid-json", path,
                    "The file contains NUL bytes. A power failure can cause this.",
                    thenRestart("Restore the file."))};
    }
    if (text.find_first_not_of(" \t\r\n") == std::string::npos) {
        return {bad("configuration.invalid-json", path, "The file is empty.",
                    thenRestart("Restore the file."))};
    }
    Json::Value root;
    if (const std::string words = parse(text, root); !words.empty()) {
        return {bad("configuration.invalid-json", path, words,
                    thenRestart("Correct the file. If the cause names a line, look there and just "
                                "before it for a missing or extra comma, quote or brace."))};
    }
    if (const std::string words = findDuplicate(text); !words.empty()) {
        return {bad("configuration.duplicate-key", path,
                    words + ". The daemon uses the last one only.",
                    thenRestart("Merge the two keys into one."))};
    }
    Findings found = judgeTypes(root);
    if (found.empty()) {
        gateway.configuration = root;
        found.push_back(ok(path));
    }
    return found;
}

} // namespace

std::string thenRestart(const std::string& fix) {
    return fix + "\nThen restart:" + command(serviceCommand("restart"));
}

std::string seeWhy() {
    if (systemdRuns()) {
        return "To see the messages of systemd and of the daemon:" +
               command("journalctl -u lora-veyra-server");
    }
    return "See the end of the log, and the kernel's messages:" + command("dmesg | tail");
}

Findings checkConfiguration(Gateway& gateway) {
    if (gateway.userIsMissing) {
        return {unknown("configuration.no-user", gateway.configurationFile,
                        "The service user does not exist now, so the doctor cannot examine the "
                        "permissions of this user.",
                        "See the check \"alive\".")};
    }
    const int error = gateway.readAsService(gateway.configurationFile, gateway.configurationText);
    if (error != 0) {
        return {unreadable(gateway, error)};
    }
    return parseFindings(gateway);
}
