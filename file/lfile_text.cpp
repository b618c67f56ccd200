// Whole-file text loading and saving.
//
// A loader reads the size the file's status gives, once, into a buffer allocated for it; a
// file that changes size while it is read yields what was read. UTF-16 is handled in the
// machine's (little-endian) order: a big-endian mark makes the loader swap the units in place
// before conversion, and conversion ends at the first zero unit as for any terminated text.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "file/lfile.h"
#include "file/lfile_platform.h"
#include "file/lfile_stream.h"
#include "file/lfile_text.h"
#include "text/lunicode.h"

namespace {

constexpr unsigned int kLoadLockMs = 5000;
constexpr unsigned int kSaveLockMs = 500;

using Descriptor = _LScopedDescriptor;

// Opens for reading with a shared lock (best effort); size is what the status says, 0 when
// it cannot be read.
int OpenForLoad(char const* path, size_t& size) {
    size = 0;
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        return -1;
    }
    flocktimed(fd, LOCK_SH, kLoadLockMs);
    struct stat st;
    if (fstat(fd, &st) == 0 && st.st_size > 0) {
        size = static_cast<size_t>(st.st_size);
    }
    return fd;
}

// Reads up to size bytes, across the kernel's cap on one read; stops at the end of the file.
size_t ReadUpTo(int fd, void* data, size_t size) {
    auto* p = static_cast<char*>(data);
    size_t done = 0;
    while (done < size) {
        ssize_t n = read(fd, p + done, size - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        done += static_cast<size_t>(n);
    }
    return done;
}

void SwapUnits(char16_t* units, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        units[i] = static_cast<char16_t>((units[i] << 8) | (units[i] >> 8));
    }
}

constexpr char16_t kMarkNative = 0xFEFF;   // bytes FF FE
constexpr char16_t kMarkSwapped = 0xFFFE;  // bytes FE FF

// Reads the file's whole units; skipMark drops a leading mark of either order, swapping the
// units behind a big-endian one. False when the file cannot be opened or the units not held.
bool LoadUnits(char const* path, LStringLongTemplate<char>& text, bool skipMark) {
    size_t size;
    Descriptor fd(OpenForLoad(path, size));
    if (fd.get() == -1) {
        return false;
    }
    size_t const wanted = size / 2;
    std::unique_ptr<char16_t[]> units(new (std::nothrow) char16_t[wanted + 1]);
    if (units == nullptr) {
        return false;
    }
    size_t const count = ReadUpTo(fd.get(), units.get(), wanted * 2) / 2;
    units[count] = 0;
    char16_t const* from = units.get();
    if (skipMark && count >= 1) {
        if (units[0] == kMarkSwapped) {
            SwapUnits(units.get() + 1, count - 1);
            ++from;
        } else if (units[0] == kMarkNative) {
            ++from;
        }
    }
    LCopyUTF8FromUnicode(text, from);
    return true;
}

int SaveText(char const* path, char const* text, size_t length, bool append) {
    Descriptor fd(open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
    if (fd.get() != -1) {
        flocktimed(fd.get(), LOCK_EX, kSaveLockMs);
        if (append) {
            lseek(fd.get(), 0, SEEK_END);
        } else if (ftruncate(fd.get(), 0) != 0) {
            lseek(fd.get(), 0, SEEK_SET);  // still written from the start
        }
        LWriteFileRef(fd.get()).Write(text, length);
    }
    return LFile::SetFileAttributeTextEncodingUTF8(path);
}

}  // namespace

bool LLoadText(char const* path, LStringLongTemplate<char>& text) {
    size_t size;
    Descriptor fd(OpenForLoad(path, size));
    if (fd.get() == -1) {
        return false;
    }
    char* data = new (std::nothrow) char[size + 1];
    if (data == nullptr) {
        return false;
    }
    size_t const length = ReadUpTo(fd.get(), data, size);
    data[length] = 0;
    text.Attach(data, length, size + 1);
    return true;
}

bool LLoadTextAsUTF16(char const* path, LStringLongTemplate<char>& text) {
    return LoadUnits(path, text, false);
}

bool LLoadTextUnicode(char const* path, LStringLongTemplate<char>& text) {
    return LoadUnits(path, text, true);
}

bool LLoadTextAutoChar(char const* path, LStringLongTemplate<char>& text) {
    if (!LLoadText(path, text)) {
        return false;
    }
    unsigned long const length = text.GetLength();
    auto const* bytes = reinterpret_cast<unsigned char const*>(text.GetText());
    bool const littleMark = length >= 2 && bytes[0] == 0xFF && bytes[1] == 0xFE;
    bool const bigMark = length >= 2 && bytes[0] == 0xFE && bytes[1] == 0xFF;
    if (littleMark || bigMark) {
        size_t const count = (length - 2) / 2;  // an odd last byte is no unit
        std::unique_ptr<char16_t[]> units(new (std::nothrow) char16_t[count + 1]);
        if (units == nullptr) {
            text.Clear();
            return true;
        }
        memcpy(units.get(), bytes + 2, count * 2);
        units[count] = 0;
        if (bigMark) {
            SwapUnits(units.get(), count);
        }
        LCopyUTF8FromUnicode(text, units.get());
    } else if (length >= 3 && bytes[0] == 0xEF && bytes[1] == 0xBB && bytes[2] == 0xBF) {
        char* data = text.GetBuffer();
        memmove(data, data + 3, length - 3);
        text.SetLength(length - 3);
    }
    return true;
}

int LSaveText(char const* path, char const* text) {
    return SaveText(path, text, tstrlen(text), false);
}

int LSaveText(char const* path, LStringLongTemplate<char> const& text) {
    return SaveText(path, text.GetText(), text.GetLength(), false);
}

int LSaveAppendText(char const* path, char const* text) {
    return SaveText(path, text, tstrlen(text), true);
}

int LSaveAppendText(char const* path, LStringLongTemplate<char> const& text) {
    return SaveText(path, text.GetText(), text.GetLength(), true);
}

void LSaveTextAsUnicodeBOM(char const* path, LStringLongTemplate<char> const& text) {
    Descriptor fd(open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
    if (fd.get() == -1) {
        return;
    }
    flocktimed(fd.get(), LOCK_EX, kSaveLockMs);
    if (ftruncate(fd.get(), 0) != 0) {
        lseek(fd.get(), 0, SEEK_SET);
    }
    LWriteFileRef(fd.get()).Write(&kMarkNative, sizeof(kMarkNative));
    LStringLongTemplate<char16_t> units;
    LCopyToUnicode(units, text);
    LWriteFileRef(fd.get()).Write(units.GetText(), units.GetLength() * sizeof(char16_t));
}
