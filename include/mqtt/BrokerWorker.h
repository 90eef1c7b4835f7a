// The broker worker: supervises the link with a keepalive that must come back through the broker,
// rebuilds the client when it does not, and publishes queued messages, one a pass.
//
// One detached thread for the life of the process, with a small stack: nothing on its path may hold
// large locals. Nobody joins it; main ends the process while it runs.
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
