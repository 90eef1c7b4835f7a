// Preloaded into the program, plays the machine that FAULT says: "licence", one that is not the
// maker's; "w1" or "l2", one on which as many calls of pthread_create fail, of the worker's (with
// attributes) or of the broker library's.
#include <ZEP/Licence.h>

#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <pthread.h>
#include <string>

static const std::string fault = std::getenv("FAULT");

bool ZEP::Licence::check() {
    return fault != "licence";
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*routine)(void*), void* argument) {
    static long left = std::strtol(fault.c_str() + 1, nullptr, 10);
    if ((attributes != nullptr) == (fault[0] == 'w') && left-- > 0) {
        return EAGAIN;
    }
    const auto real =
        reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    return real(thread, attributes, routine, argument);
}
