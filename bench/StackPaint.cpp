// Preloaded into the daemon: fills the stack of a detached thread with a pattern before the thread
// runs, and when it ends writes "stack: USED of SIZE" to standard error.
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <pthread.h>

namespace {

using StartRoutine = void* (*)(void*);
using PthreadCreate = int (*)(pthread_t*, const pthread_attr_t*, StartRoutine, void*);

constexpr unsigned char pattern = 0xA5;
StartRoutine watchedRoutine = nullptr;

void* runPainted(void* argument) {
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    void* lowest = nullptr;
    std::size_t size = 0;
    pthread_attr_getstack(&attributes, &lowest, &size);
    pthread_attr_destroy(&attributes);
    auto* const bottom = static_cast<unsigned char*>(lowest);
    auto* const top = bottom + size;
    auto* volatile here = static_cast<unsigned char*>(__builtin_frame_address(0)) - 512;
    for (unsigned char* byte = bottom; byte < here; ++byte) {
        *const_cast<volatile unsigned char*>(byte) = pattern;
    }
    void* const result = watchedRoutine(argument);
    const unsigned char* untouched = bottom;
    while (untouched < top && *untouched == pattern) {
        ++untouched;
    }
    std::fprintf(stderr, "stack: %zu of %zu\n", static_cast<std::size_t>(top - untouched), size);
    return result;
}

} // namespace

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the C library's are reserved
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              StartRoutine routine, void* argument) {
    static const auto real = reinterpret_cast<PthreadCreate>(dlsym(RTLD_NEXT, "pthread_create"));
    int state = PTHREAD_CREATE_JOINABLE;
    if (attributes != nullptr) {
        pthread_attr_getdetachstate(attributes, &state);
    }
    if (state == PTHREAD_CREATE_DETACHED) {
        watchedRoutine = routine;
        routine = runPainted;
    }
    return real(thread, attributes, routine, argument);
}
