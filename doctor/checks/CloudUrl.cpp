#include "checks/CloudUrl.h"

#include "checks/Checks.h"
#include "host/Text.h"

#include <ZEP/Text.h>

namespace {

// `url` does not begin with "https:".
Finding judgeScheme(const std::string& url, const std::string& subject) {
    if (ZEP::Text::toLowerCase(url).rfind("https:", 0) == 0) {
        return bad(
            "settings.capital-letters", subject,
            "The scheme has capital letters. In this case the daemon does not use its own CA "
            "file.",
            thenRestart("Write https:// in small letters."));
    }
    return bad("settings.not-encrypted", subject,
               "The URL does not begin with https://, so the server is not verified.",
               thenRestart("Write https:// in front of the host."));
}

} // namespace

void judgeCloudUrl(const std::string& url, Findings& found) {
    const std::string subject = "network.veyraServer \"" + masked(url) + "\"";
    if (url.find_first_of(" \t\r\n") != std::string::npos) {
        found.push_back(bad("settings.space", subject,
                            "The URL contains a space, a tab or a line break.",
                            thenRestart("Remove this character.")));
        return;
    }
    if (url.rfind("https:", 0) != 0) { // libcurl adds a missing slash
        found.push_back(judgeScheme(url, subject));
    }
    if (url.find_first_of("?#") != std::string::npos) {
        found.push_back(bad("settings.query", subject,
                            "The URL contains \"?\" or \"#\". The daemon appends the path of each "
                            "datagram to this URL. The cloud receives this path as a part of the "
                            "query, or not at all.",
                            thenRestart("Write the URL of the API without \"?\" and \"#\".")));
    }
    if (url.back() != '/') {
        found.push_back(bad("settings.no-slash", subject,
                            "The daemon appends the path of each datagram to this URL without "
                            "adding a \"/\". Therefore the URL must end in \"/\".",
                            thenRestart("Append \"/\".")));
    }
}
