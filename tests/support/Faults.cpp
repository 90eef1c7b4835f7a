// This library is preloaded into the program. It simulates the fault that the environment variable
// FAULT names:
//   no licence                the licence check fails
//   no worker thread          the broker worker cannot be started
//   no first network thread   the first network thread of the broker library cannot be started
#include <ZEP/Licence.h>

#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <pthread.h>
#include <string>

static const std::string fault = std::getenv("FAULT");

bool ZEP::Licence::check() {
    return fault != "no licence";
}

// The program passes attributes only when it creates the worker.
static bool mustFail(bool hasAttributes) {
    static bool firstNetworkThread = true;
    if (hasAttributes) {
        return fault == "no worker thread";
    }
    const bool isFirst = firstNetworkThread;
    firstNetworkThread = false;
    return isFirst && fault == "no first network thread";
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*routine)(void*), void* argument) {
    if (mustFail(attributes != nullptr)) {
        return EAGAIN;
    }
    const auto real =
        reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    return real(thread, attributes, routine, argument);
}
