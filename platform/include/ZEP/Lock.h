// A plain mutual-exclusion lock, not recursive.
//
// Any thread may use it. It is ready before the first constructor of the program runs and is never
// destroyed, so a lock at namespace scope may still be taken by a detached thread while the process
// exits.
#pragma once

#include <pthread.h>

namespace ZEP {

class Lock {
  public:
    constexpr Lock() = default;
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    void lock();
    void unlock();

  private:
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};

} // namespace ZEP
