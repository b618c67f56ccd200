// The platform half of the events: descriptor creation and the named events' folder. Kept
// out of lsignal_object.h because only the event code itself calls these.
#pragma once

#include "thread/lsignal_object.h"

// Makes a pipe with both ends non-blocking and close-on-exec; false when the system refuses.
bool _LSignalMakePipe(int fds[2]);
// Opens an AF_UNIX stream socket, close-on-exec; -1 on failure.
int _LSignalMakeStreamSocket();
void _LSignalSetNonBlocking(int fd);
// Writes the folder named events live in (the user's application-support folder) into a
// 260-byte buffer.
void _LSignalNamedFolder(char* dst);
// Connects to the address and writes one byte (the shared body of the two Signal forms).
void _LSignalNamedSignal(LSignalNamedAddress const& addr);
