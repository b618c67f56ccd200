// Large arena regions on Linux: anonymous mappings aligned to 2 MB and marked for
// transparent huge pages (honoured where the system allows it, ordinary pages otherwise).
#include <sys/mman.h>

#include <cstdint>

#include "settings/lxml_platform.h"

void* _LXMLMapLargeBlock(std::size_t size) {
    // Mapped with one unit of slack, then cut to the aligned part.
    const std::size_t mapped = size + kLXMLLargeBlockUnit;
    void* raw = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (raw == MAP_FAILED) {
        return nullptr;
    }
    const auto start = reinterpret_cast<std::uintptr_t>(raw);
    const std::uintptr_t aligned = (start + kLXMLLargeBlockUnit - 1) & ~(kLXMLLargeBlockUnit - 1);
    if (aligned != start) {
        munmap(raw, aligned - start);
    }
    const std::uintptr_t end = start + mapped;
    if (end != aligned + size) {
        munmap(reinterpret_cast<void*>(aligned + size), end - (aligned + size));
    }
    void* block = reinterpret_cast<void*>(aligned);
    madvise(block, size, MADV_HUGEPAGE);  // a hint: refused, the pages stay ordinary ones
    return block;
}

void _LXMLUnmapLargeBlock(void* block, std::size_t size) {
    munmap(block, size);
}
