// The licence check of the gateway's manufacturer. Main thread, as the first step of startup.
#pragma once

namespace ZEP::Licence {

// True when the program may run on this machine. The host implementation accepts every machine.
bool check();

} // namespace ZEP::Licence
