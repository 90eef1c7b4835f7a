// Reads what the peers wrote down in a soak test, and compares it.
#pragma once

#include "SoakReport.h"

#include <string>
#include <vector>

// Fills in what the daemon's log, the cloud's output and the subscriber tell.
void countEvidence(SoakCounts& counts, const std::string& daemonLog, const std::string& cloudOutput,
                   const std::vector<int>& receivedIds);
