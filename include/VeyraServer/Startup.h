// The steps of start-up and shutdown that main lists. Main thread only. What ends the program with
// a report throws Exception; other exceptions end it abnormally.
#pragma once

#include "VeyraServer/CommandLine.h"
#include "common/Exception.h"
#include "common/InputError.h"

// SIGINT and SIGTERM ask for an orderly stop.
void installStopHandler();

// Initialises the libraries that threads share, so that neither a client that is rebuilt nor the
// exit of main tears one down under another thread. Before the random generator is seeded, since
// the broker library seeds it too.
void keepLibrariesUntilExit();

// Sets gatewaySecret from the device information and the configured gateway key. Throws
// std::out_of_range when there is neither a key nor a long enough "uuid".
void loadGatewaySecret(const CommandLine& commandLine);

// Binds and closes the upstream port, so that a port in use ends the program with a clear record.
void testUpstreamPort();

void startBrokerWorker();

void reportStartupError(const Exception& exception);
void reportStartupError(const InputError& error);

// Prints the licence notice. Returns the exit status.
int refuseLicence();

// The end of a run: tells the supervisor, releases the cloud handle and returns the exit status.
// The broker worker goes on until the process is gone.
int closeProgram();
