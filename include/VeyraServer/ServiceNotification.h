// Reports the program's state to the service manager that started it, such as systemd: one datagram
// per report to the UNIX socket that NOTIFY_SOCKET names. The program cannot leave three of its
// states on its own (see docs/architecture.md, "Kept on purpose"); a service manager with a
// watchdog detects them because the reports stop. The protocol is implemented here: the library
// that implements it would load four compression and cryptography libraries into a program that
// runs on small gateways.
//
// Main thread only. Without the variable each function returns at once. A report that cannot be
// sent is lost; the program never waits for the service manager.
#pragma once

// Reads NOTIFY_SOCKET and opens the socket for the reports. The variable is not read again.
void connectToServiceManager();

// The upstream port is open and stays open.
void notifyReady();

// The upstream loop is running. Sends at most one report a second, however often it is called.
void notifyAlive();

void notifyStopping();
