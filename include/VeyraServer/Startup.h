// The steps of startup and shutdown that main calls. Main thread only. An Exception ends the
// program with a report; any other exception ends it abnormally.
#pragma once

#include "VeyraServer/CommandLine.h"
#include "common/Exception.h"
#include "common/InputError.h"

// SIGINT and SIGTERM request an orderly stop from now on.
void installStopHandler();

// Initialises the libraries that several threads use, and keeps them until the process is gone.
// Otherwise a client that is rebuilt, or the return of main, would release a library while another
// thread uses it. Must run before the random generator is seeded, because the broker library seeds
// it too.
void keepLibrariesUntilExit();

// Sets gatewaySecret from the device information and the configured gateway key. Throws
// std::out_of_range when there is no key and the "uuid" is missing or too short.
void loadGatewaySecret(const CommandLine& commandLine);

// Binds the upstream port and closes it again. Throws Exception when the port is in use.
void testUpstreamPort();

// Throws Exception when the thread cannot be created.
void startBrokerWorker();

void reportStartupError(const Exception& exception);
void reportStartupError(const InputError& error);

// Prints the licence notice. Returns the exit status.
int refuseLicence();

// Ends a run: notifies the service manager, releases the cloud handle and returns the exit status.
// The broker worker keeps running until the process is gone.
int closeProgram();
