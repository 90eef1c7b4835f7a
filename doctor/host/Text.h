// Texts for the report. Pure functions, usable from any thread.
#pragma once

#include <cstddef>
#include <ctime>
#include <string>

// The place of the first byte that is not part of valid UTF-8; npos when there is none.
std::size_t findInvalidUtf8(const std::string& text);

// Converts text from outside, such as a log record or a certificate's name, to valid UTF-8 without
// control characters and without characters that change the direction of writing. Such text must
// not control a terminal or imitate other text.
std::string printable(const std::string& text);

// The text, such as a URL, with "***" in place of a username and password before an "@".
std::string masked(const std::string& text);

// A log record in quotes, shortened, with the username and password in a URL masked.
std::string quoted(const std::string& record);

// Such as 2026-11-21 10:00:04Z.
std::string utcText(std::time_t time);

// Adds an item to a list such as "a, b".
void addItem(std::string& list, const std::string& item);

// "1 datagram", "2 datagrams".
std::string counted(long long count, const std::string& noun);
