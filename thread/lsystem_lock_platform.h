// Internal seam of the system lock: the pause between two attempts of a timed lock. Tests
// replace it to count the pauses; it must sleep at least the given time.
#pragma once

extern void (*_gLSystemLockPause)(unsigned int ms);
