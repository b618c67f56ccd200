// Fuzzes the data-file reader with outside bytes, through the same descriptor and line reader
// that loading a file uses. Beyond memory safety it checks what must hold for any input:
// every stored name, key and value keeps to 259 characters and is free of line ends, and the
// text saved from what was read reads back into records that save to the very same text.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "settings/ldatfile_native.h"

namespace {

// An anonymous file holding text, positioned at its start; -1 when none can be made.
int MemoryFile(std::string const& text) {
    const int fd = memfd_create("datfile", MFD_CLOEXEC);
    if (fd >= 0 && (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
                    lseek(fd, 0, SEEK_SET) != 0)) {
        close(fd);
        return -1;
    }
    return fd;
}

std::string Contents(int fd) {
    std::string text;
    char chunk[4096];
    lseek(fd, 0, SEEK_SET);
    for (ssize_t n; (n = read(fd, chunk, sizeof chunk)) > 0;) {
        text.append(chunk, static_cast<size_t>(n));
    }
    return text;
}

bool Storable(std::string const& text) {
    return text.size() < kLDatFileTextSize && text.find_first_of("\r\n") == std::string::npos;
}

// Reads text into a fresh record and returns what saving that record writes.
std::string ReadAndSave(std::string const& text) {
    const int in = MemoryFile(text);
    const int out = MemoryFile("");
    if (in < 0 || out < 0) {
        std::abort();
    }
    LDatFileNativeFile record("fuzz.dat");
    record.ReadFrom(in);
    for (auto* section = record.FirstSection(); section != nullptr; section = section->pNext) {
        if (!Storable(section->name) || section->name.find(']') != std::string::npos) {
            std::abort();
        }
        for (auto* value = section->values.Head(); value != nullptr; value = value->pNext) {
            if (!Storable(value->key) || !Storable(value->value) ||
                value->key.find('=') != std::string::npos || section->Find(value->key) != value) {
                std::abort();
            }
        }
    }
    record.WriteTo(out);
    std::string saved = Contents(out);
    close(in);
    close(out);
    return saved;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string saved = ReadAndSave(text);
    if (ReadAndSave(saved) != saved) {
        std::abort();
    }
    return 0;
}
