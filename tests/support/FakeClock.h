// A clock that tests set. Linked in place of the program's own.
#pragma once

#include <cstdint>

// What monotonicMillis() returns; sleepMillis() moves it on.
extern std::uint64_t fakeNowMs;
