// Whole reads and writes of the small files the library takes from the system (/proc, the
// desktop's configuration, property lists, a bundle's information dictionary), without the
// C++ stream library: a process that needs nothing else of it, the helper service among
// them, then maps and initialises none of its locale machinery.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Reads the file at path into bytes (replacing them). False when it cannot be opened, is not
// a regular file, or holds more than maxBytes (bytes is then emptied). With followLink
// false, a link in the last component is refused; a FIFO or device is never waited on.
bool _LReadWholeFile(const char* path, std::string& bytes, size_t maxBytes = 64u << 20,
                     bool followLink = true);

// Replaces the file at path by size bytes of data (created 0666 less the umask); false on
// any failure, the file then possibly holding a part of the data.
bool _LWriteWholeFile(const char* path, const void* data, size_t size);

// Writes all size bytes to fd, going on after short writes and interruptions; false on
// any other failure.
bool _LWriteAll(int fd, const void* data, size_t size);

// Calls visit with each line of text without its LF, as std::getline would split it.
template <typename Visit>
void _LForEachLine(std::string_view text, Visit&& visit) {
    while (!text.empty()) {
        const size_t eol = text.find('\n');
        visit(text.substr(0, eol));
        if (eol == std::string_view::npos) {
            return;
        }
        text.remove_prefix(eol + 1);
    }
}
