// The maker's licence check. Call it from the main thread at start-up, before anything else.
#pragma once

namespace ZEP::Licence {

// True when the program may run on this machine. The host implementation accepts every machine.
bool check();

} // namespace ZEP::Licence
