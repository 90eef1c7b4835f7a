// Judges the clock. A pure function, usable from any thread.
#pragma once

#include "Finding.h"
#include "host/HttpProbe.h"

Finding judgeClock(std::time_t now, const HttpAnswer& cloud);
