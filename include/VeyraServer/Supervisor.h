// Tells the supervisor that started the program, such as systemd, how it is: one datagram to the
// UNIX socket that NOTIFY_SOCKET names. Three states that the program never leaves by itself (see
// docs/architecture.md, "Kept on purpose") are noticed by its silence. Written out here, since the
// ready-made library for these few lines would load four compression and cryptography libraries
// into a program that lives on small gateways.
//
// Main thread only. Without the variable each function returns at once. A datagram that cannot be
// sent is lost; nothing waits for the supervisor.
#pragma once

// Looks for the supervisor, once: the environment is not read again.
void findSupervisor();

// The upstream port is open for good.
void tellReady();

// The upstream loop turns. Sends at most once a second, however often it is called.
void tellAlive();

void tellStopping();
