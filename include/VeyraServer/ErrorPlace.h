// The source file and lines that the records of fatal errors name. These numbers are fixed:
// operators search logs for them, so they do not follow the source code. Constants, usable from any
// thread.
#pragma once

constexpr const char* errorFile = "src/VeyraServer";

constexpr unsigned portTestErrorLine = 284;
constexpr unsigned workerStartErrorLine = 308;
constexpr unsigned bindErrorLine = 381;
constexpr unsigned receiveErrorLine = 393;
