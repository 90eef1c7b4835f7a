// The steps of start-up and shutdown that main lists. Main thread only. Faults throw Exception.
#pragma once

#include "VeyraServer/CommandLine.h"
#include "common/Exception.h"
#include "common/InputError.h"

// SIGINT and SIGTERM ask for an orderly stop.
void installStopHandler();

// Keeps libraries from tearing themselves down at exit while threads still use them.
void keepLibrariesUntilExit();

// Sets gatewaySecret from the device information and the configured gateway key.
void loadGatewaySecret(const CommandLine& commandLine);

// Binds and closes the upstream port, so that a port in use ends the program with a clear record.
void testUpstreamPort();

void startBrokerWorker();

void reportStartupError(const Exception& exception);
void reportStartupError(const InputError& error);

// Prints the licence notice. Returns the exit status.
int refuseLicence();

// The end of every run that got past the configuration file: releases the cloud handle and returns
// the exit status. The broker worker goes on until the process is gone.
int closeProgram();
