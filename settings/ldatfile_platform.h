// The platform seam under the data-file cache: the file-status query, opening, locking,
// writing and truncating, and the wall clock. Every decision (when to read, what to write, in
// which order) stays in ldatfile.cpp. Not for use outside settings/.
#pragma once

#include <cstddef>
#include <cstdint>

// What the cache compares to decide whether a file changed under it.
struct LDatFileStamp {
    int64_t modified = 0;  // whole seconds
    int64_t size = 0;
};

// False when the file does not exist or its status cannot be read.
bool _LDatFileStat(char const* path, LDatFileStamp& stamp);
// Read-only, close-on-exec, with a shared advisory lock tried for up to timeoutMs; the
// descriptor is returned even when the lock was not obtained. -1 when it cannot be opened.
int _LDatFileOpenShared(char const* path, unsigned int timeoutMs);
// Read-write, created with mode 0666 (less the umask), close-on-exec, with an exclusive
// advisory lock tried for up to timeoutMs, then truncated to 0 bytes. -1 when it cannot be
// opened.
int _LDatFileOpenExclusive(char const* path, unsigned int timeoutMs);
// Writes all of the bytes (a failed write is not reported: the next save rewrites the file).
void _LDatFileWrite(int fd, char const* data, size_t size);
// Cuts the file at the descriptor's current position.
void _LDatFileTruncateHere(int fd);
void _LDatFileClose(int fd);
// Seconds x 1000 + microseconds / 1000 of the wall clock, wrapping in 32 bits.
uint32_t _LDatFileWallClock();
