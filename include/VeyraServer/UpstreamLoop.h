// The spine of the bridge: receives the network server's datagrams and relays each in turn.
#pragma once

// Runs in the main thread until the stop flag is set, which it sees within the 100 ms receive
// timeout, or when the request in progress returns. A port that cannot be bound is tried every 100
// ms without looking at the flag. Always 0.
int VeyraReceiveFunction();
