// The main loop of the program: receives the network server's datagrams and relays them one by one.
#pragma once

// Runs in the main thread until the stop flag is set. The loop checks the flag after the receive
// timeout of 100 ms, or after the request in progress. While the port cannot be bound, it retries
// every 100 ms and does not check the flag. Always returns 0.
int VeyraReceiveFunction();
