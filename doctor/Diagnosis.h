// The ordered list of the checks and their dependencies. One thread.
#pragma once

#include "Options.h"
#include "Report.h"

// Runs the checks that the options ask for and reports each. Ends within 25 s, however slow the
// peers are. Returns the exit status.
int diagnose(const Options& options, Report& report);
