// A mutual-exclusion lock, not recursive.
//
// Any thread may use it. A lock at namespace scope is ready before the first constructor of the
// program runs. It has no destructor, so that detached threads can still use it while the process
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
