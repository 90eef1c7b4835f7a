// The broker worker, a thread that supervises the link to the broker and publishes queued messages.
// It publishes a keepalive whose echo must return through the broker, replaces the client when no
// echo returns, and publishes one queued message in each pass.
//
// One detached thread runs for the life of the process. Its stack is small: no function that it
// calls may have large local variables. It is never joined: main ends the process while it runs.
#pragma once

#include <pthread.h>

struct ThreadDescriptor {
    unsigned stackSize; // bytes
    pthread_t threadId; // filled in by startThread
    int reserved;       // 0
    void* (*startRoutine)(void*);
};

extern ThreadDescriptor brokerWorker;

// Starts the thread of `descriptor`, detached. Returns pthread_create's result, 0 on success.
int startThread(ThreadDescriptor& descriptor);

// Runs until the stop flag is set. The argument is ignored and the result null.
void* MqttThreadFunction(void* argument);
