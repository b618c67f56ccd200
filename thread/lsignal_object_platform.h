// The platform half of the events: descriptor creation and the socket address layout. Kept
// out of lsignal_object.h because only the event code itself calls these.
#pragma once

#include "thread/lsignal_object.h"

// Makes a pipe with both ends non-blocking and close-on-exec; false when the system refuses.
bool _LSignalMakePipe(int fds[2]);
// Opens an AF_UNIX stream socket, close-on-exec; -1 on failure.
int _LSignalMakeStreamSocket();
void _LSignalSetNonBlocking(int fd);
// Clears the address and fills in the family and as much of path as the 106-byte address
// holds, terminated.
void _LSignalFillAddress(sockaddr_un& address, char const* path);
// Connects to the address and writes one byte (the shared body of the two Signal forms).
void _LSignalNamedSignal(LSignalNamedAddress const& addr);
