// Why the daemon is not running, or ends soon after each start. One thread.
#pragma once

#include "Finding.h"
#include "Gateway.h"

// Empty when the service is not restarted again and again.
Findings judgeRestarts(const Gateway& gateway);

// Finds out why the daemon is not running.
Finding judgeAbsence(const Gateway& gateway);
