// The configuration file and what start-up makes of it. Main thread, before other threads run.
#pragma once

#include "VeyraServer/CommandLine.h"

// Parses the configuration file into configurationForStartup(). On failure logs why, to the log
// file of the command line when one was given, and returns false.
bool readConfiguration(const CommandLine& commandLine);

// Sets the logger up as the section "log" says, then logs the program's start. Inserts null for
// log.syslog and log.console when they are missing: the logged configuration shows them.
void setUpLogger(const CommandLine& commandLine);

// Stores the default of udp.veyraPort when the file has none.
void completeUpstreamPort();

// Logs the whole configuration, secrets included.
void logConfiguration();
