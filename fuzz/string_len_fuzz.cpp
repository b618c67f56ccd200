// Fuzzes the length-prefixed string reader with arbitrary file contents. Each string lands in
// an exact 260-byte heap block (ASan sees any write past it) and must be terminated inside
// it; after each read the file position must stand exactly behind the announced text (or at
// the end of a file too short for it), and what was stored must be the text's first bytes.
// A stored text without NULs must come back unchanged through the writer and the reader.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "file/lfile_stream.h"
#include "file_input.h"

namespace {

void Check(bool ok) {
    if (!ok) {
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzFile file(data, size);
    LReadFileRef reader(file.fd());
    size_t at = 0;
    while (at < size) {
        std::unique_ptr<char[]> buffer(new char[kLPathSize]);
        memset(buffer.get(), 0x5a, kLPathSize);
        reader.ReadStringLenUTF8(buffer.get());
        Check(memchr(buffer.get(), 0, kLPathSize) != nullptr);

        size_t header = data[at] == 0xFF ? 5 : 1;
        unsigned long long length = data[at];
        if (header == 5) {
            if (at + 5 > size) {
                Check(buffer[0] == 0);
                break;
            }
            length = data[at + 1] | data[at + 2] << 8 | data[at + 3] << 16 |
                     static_cast<unsigned long long>(data[at + 4]) << 24;
        }
        size_t const textAt = at + header;
        size_t const available = size - textAt;
        size_t const kept = length < kLPathSize - 1 ? length : kLPathSize - 1;
        size_t const stored = kept < available ? kept : available;
        Check(memcmp(buffer.get(), data + textAt, stored) == 0 && buffer[stored] == 0);
        if (stored < kept) {
            break;  // a short file: nothing more to read
        }
        unsigned long long const next = textAt + length;
        Check(static_cast<unsigned long long>(lseek(file.fd(), 0, SEEK_CUR)) == next);
        if (memchr(buffer.get(), 0, stored) == nullptr) {
            FuzzFile copy(nullptr, 0);
            LWriteFileRef(copy.fd()).WriteStringLenUTF8(buffer.get());
            lseek(copy.fd(), 0, SEEK_SET);
            std::unique_ptr<char[]> back(new char[kLPathSize]);
            LReadFileRef(copy.fd()).ReadStringLenUTF8(back.get());
            Check(strcmp(back.get(), buffer.get()) == 0);
        }
        if (next >= size) {
            break;
        }
        at = static_cast<size_t>(next);
    }
    return 0;
}
