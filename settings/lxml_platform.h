// The memory beneath the XML reader's arena once a load has grown large: regions that the
// system backs with huge pages when it can, so that reading a document of many megabytes takes
// one page fault per huge page instead of one per ordinary page. Only touched pages are
// resident, so a region may be reserved well beyond what the load will use. Not for use
// outside settings/.
#pragma once

#include <cstddef>

// Large regions come in multiples of this, aligned to it (the size of a huge page).
constexpr std::size_t kLXMLLargeBlockUnit = std::size_t{2} << 20;

// Maps `size` bytes (a multiple of kLXMLLargeBlockUnit) of zeroed, writable memory aligned to
// kLXMLLargeBlockUnit; null when the system refuses.
void* _LXMLMapLargeBlock(std::size_t size);
// Gives back a region from _LXMLMapLargeBlock.
void _LXMLUnmapLargeBlock(void* block, std::size_t size);
