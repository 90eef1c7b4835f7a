// Texts for the report. Pure functions, usable from any thread.
#pragma once

#include <cstddef>
#include <ctime>
#include <string>

// The place of the first byte that is not part of valid UTF-8; npos when there is none.
std::size_t findInvalidUtf8(const std::string& text);

// Text that others wrote, such as a log record or a certificate's name, as valid UTF-8 without
// control characters and without characters that change the direction of writing: it must neither
// drive a terminal nor look like something else.
std::string printable(const std::string& text);

// A text, such as a URL, without what may be a username and a password before an "@".
std::string masked(const std::string& text);

// Such as 2026-11-21 10:00:04Z.
std::string utcText(std::time_t time);

// Adds an item to a list such as "a, b".
void addItem(std::string& list, const std::string& item);

// "1 datagram", "2 datagrams".
std::string counted(long long count, const std::string& noun);
