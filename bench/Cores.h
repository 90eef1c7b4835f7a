// Which core runs what in the benchmark: the measured program and the cloud share one, as they would
// on a small gateway, and everything else has the others. Left to the scheduler, the core that it
// wakes the cloud on decides more than the programs do.
#pragma once

#include <string>

// Keeps this process, and what it starts without more, off the measured core. On a machine with one
// core it does nothing.
void leaveMeasuredCore();

// What a command begins with to run on the measured core; empty unless this process has left it.
const std::string& onMeasuredCore();
