// Reads the configuration file and applies the settings that startup needs. Main thread, before
// other threads run.
#pragma once

#include "VeyraServer/CommandLine.h"

// Parses the configuration file into configurationForStartup(). Returns false on failure and logs
// the reason. The record goes to the log file of the command line if one was given.
bool readConfiguration(const CommandLine& commandLine);

// Sets up the logger from the section "log", then logs that the program has started. Inserts null
// for log.syslog and log.console when they are missing, so that the logged configuration shows
// them.
void setUpLogger(const CommandLine& commandLine);

// Stores the default value of udp.veyraPort when the file has none.
void completeUpstreamPort();

// Logs the whole configuration, including secrets.
void logConfiguration();
