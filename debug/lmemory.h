// Memory figures of the machine and of this process, for bug reports and for the size test
// of the XML loader. Every figure is in bytes; a figure that cannot be read gives 0 (or -1
// for the two heap figures, when the data-size limit cannot be read). None of them fails
// loudly: they describe, they never decide on their own.
#pragma once

// Installed memory.
unsigned long long LMemoryGetPhysicalMemorySize();
// Memory that can be had without evicting anything busy: free plus inactive.
unsigned long long LMemoryGetAvailableVirtualMemorySize();
// Free, active, inactive and wired memory together.
unsigned long long LMemoryGetTotalVirtualMemorySize();
// Free memory.
unsigned long long LMemoryGetLargestFreeRegionSize();
// This process's virtual size.
unsigned long long LMemoryGetApplicationVirtualMemoryUsage();
// The smaller of the available memory and what the data-size limit still allows this
// process; -1 when the limit cannot be read.
long long LMemoryGetFreeHeapSize();
// The smaller of the data-size limit and the total memory; -1 when the limit cannot be read.
long long LMemoryGetTotalHeapSize();
// Always 0.
int LMemoryGetPhysicalMemoryLoad();
// Sets both to 0 and answers 0: there is no page-file figure to give.
int LMemoryGetPageFileUsage(unsigned long& used, unsigned long& total);
// Nothing to lock on a 64-bit system.
void LMemoryLockLower2GB();
