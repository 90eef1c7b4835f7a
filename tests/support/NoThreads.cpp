// Fails as many calls of pthread_create as NO_THREADS says, of those that have attributes (the
// worker's) or have none (the broker library's), as its first letter says: "w1", "l2".
#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <pthread.h>

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*routine)(void*), void* argument) {
    static const char* const which = std::getenv("NO_THREADS");
    static int left = std::atoi(which + 1);
    if ((attributes != nullptr) == (which[0] == 'w') && left > 0) {
        --left;
        return EAGAIN;
    }
    using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto create = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
    return create(thread, attributes, routine, argument);
}
