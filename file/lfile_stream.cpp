// Line, string and buffered I/O on plain descriptors, the timed advisory lock and the lock
// file.
//
// The unbuffered reader moves one byte at a time and steps back one byte after a line end
// that is not part of a pair, so that a descriptor shared with other readers is always left
// exactly behind what was consumed. The buffered reader instead keeps the invariant
//   logical position = descriptor position - (m_nValid - m_nPosition),
// and every operation restores it before returning. The two readers deliberately disagree on
// LF CR (one line end for the unbuffered reader, two for the buffered one): files written by
// either are read back by the same one.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <ctime>

#include "file/lfile_platform.h"
#include "file/lfile_stream.h"

namespace {

void PauseMs(unsigned int ms) {
    timespec left{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

// One system read, repeated only when a signal interrupted it before any byte arrived.
ssize_t ReadOnce(int fd, void* data, size_t size) {
    ssize_t n;
    do {
        n = read(fd, data, size);
    } while (n < 0 && errno == EINTR);
    return n;
}

bool ReadByte(int fd, char& c) {
    return ReadOnce(fd, &c, 1) == 1;
}

// Feeds the characters of one line to put and answers whether a line end was met (false:
// the end of the file came first). The partner of the line end (LF after CR, CR after LF)
// is consumed with it; any other byte read to find out is given back.
template <typename Put>
bool ReadUnbufferedLine(int fd, Put&& put) {
    char c;
    while (ReadByte(fd, c)) {
        if (c == '\r' || c == '\n') {
            char const partner = c == '\r' ? '\n' : '\r';
            char next;
            if (ReadByte(fd, next) && next != partner) {
                lseek(fd, -1, SEEK_CUR);
            }
            return true;
        }
        put(c);
    }
    return false;
}

// The first CR or LF in [begin, begin + size), or begin + size. Two memchr passes beat a
// byte loop by far on long lines; the second pass only covers what precedes the first LF.
char const* FindLineEnd(char const* begin, size_t size) {
    char const* lf = static_cast<char const*>(memchr(begin, '\n', size));
    char const* end = lf != nullptr ? lf : begin + size;
    char const* cr =
        static_cast<char const*>(memchr(begin, '\r', static_cast<size_t>(end - begin)));
    return cr != nullptr ? cr : end;
}

}  // namespace

void (*_gLFilePause)(unsigned int ms) = PauseMs;

void flocktimed(int fd, int operation, unsigned int timeoutMs) {
    // 64 bits so that doubling near the largest limits cannot wrap into an endless loop.
    unsigned long long step = timeoutMs / 32 + 1;
    for (;;) {
        if (flock(fd, operation | LOCK_NB) == 0 || errno != EWOULDBLOCK) {
            return;
        }
        _gLFilePause(static_cast<unsigned int>(step));
        step *= 2;
        if (step >= timeoutMs) {
            return;  // no attempt after the last sleep
        }
    }
}

// ---- LReadFileRef --------------------------------------------------------------------------

bool LReadFileRef::ReadLine(char* buffer, size_t size) {
    size_t stored = 0;
    bool const ended = ReadUnbufferedLine(m_hFile, [&](char c) {
        if (stored + 1 < size) {
            buffer[stored++] = c;
        }
    });
    if (size != 0) {
        buffer[stored] = 0;
    }
    return ended || stored != 0;
}

bool LReadFileRef::ReadLine(LStringLongTemplate<char>& line) {
    line.GrowToSize(LStringLongTemplate<char>::kInitialSize);
    line.Clear();
    bool const ended = ReadUnbufferedLine(m_hFile, [&](char c) { line.AppendChar(c); });
    return ended || !line.IsEmpty();
}

void LReadFileRef::ReadStringLenUTF8(char* buffer) {
    buffer[0] = 0;
    unsigned char lead;
    if (ReadOnce(m_hFile, &lead, 1) != 1) {
        return;
    }
    uint32_t length = lead;
    if (lead == 0xFF) {
        unsigned char le[4];
        if (ReadOnce(m_hFile, le, sizeof(le)) != static_cast<ssize_t>(sizeof(le))) {
            return;
        }
        length = le[0] | uint32_t{le[1]} << 8 | uint32_t{le[2]} << 16 | uint32_t{le[3]} << 24;
    }
    size_t const keep = std::min<size_t>(length, kLPathSize - 1);
    ssize_t const got = keep != 0 ? ReadOnce(m_hFile, buffer, keep) : 0;
    size_t const stored = got > 0 ? static_cast<size_t>(got) : 0;
    buffer[stored] = 0;
    if (stored == keep && length > keep) {
        lseek(m_hFile, static_cast<off_t>(length - keep), SEEK_CUR);
    }
}

void LReadFileRef::ReadStringUTF8(char* buffer, unsigned int length) {
    ssize_t const got = length != 0 ? ReadOnce(m_hFile, buffer, length) : 0;
    buffer[got > 0 ? got : 0] = 0;
}

// ---- LWriteFileRef -------------------------------------------------------------------------

void LWriteFileRef::Write(void const* data, size_t size) {
    if (m_hFile == -1) {
        return;
    }
    auto const* p = static_cast<char const*>(data);
    while (size != 0) {
        ssize_t n = write(m_hFile, p, size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;
        }
        p += n;
        size -= static_cast<size_t>(n);
    }
}

void LWriteFileRef::WriteString(char const* text) {
    Write(text, tstrlen(text));
}

void LWriteFileRef::WriteString(LStringLongTemplate<char> const& text) {
    Write(text.GetText(), text.GetLength());
}

void LWriteFileRef::WriteStringUTF8(char const* text) {
    WriteString(text);
}

void LWriteFileRef::WriteLineCRLF(char const* text) {
    WriteString(text);
    Write("\r\n", 2);
}

void LWriteFileRef::WriteLineLF(char const* text) {
    WriteString(text);
    Write("\n", 1);
}

void LWriteFileRef::WriteStringLenUTF8(char const* text) {
    size_t const length = tstrlen(text);
    if (length < 255) {
        unsigned char const lead = static_cast<unsigned char>(length);
        Write(&lead, 1);
    } else {
        auto const n = static_cast<uint32_t>(length);
        unsigned char const head[5] = {
            0xFF, static_cast<unsigned char>(n), static_cast<unsigned char>(n >> 8),
            static_cast<unsigned char>(n >> 16), static_cast<unsigned char>(n >> 24)};
        Write(head, sizeof(head));
    }
    Write(text, length);
}

LWriteFile::~LWriteFile() {
    if (m_hFile != -1) {
        close(m_hFile);
    }
}

void fprintf(LWriteFileRef file, char const* format, ...) {
    LStringLongTemplate<char> text;
    va_list args;
    va_start(args, format);
    vsprintf(text, format, args);
    va_end(args);
    file.WriteString(text);
}

// ---- LReadFileBuffered ---------------------------------------------------------------------

bool LReadFileBuffered::Fill() {
    m_nPosition = 0;
    m_nValid = 0;
    if (m_hFile == -1) {
        return false;
    }
    ssize_t const n = ReadOnce(m_hFile, m_arBuffer, kBufferSize);
    if (n <= 0) {
        return false;
    }
    m_nValid = static_cast<size_t>(n);
    return true;
}

bool LReadFileBuffered::ReadLine(char* buffer, size_t size) {
    size_t const room = size != 0 ? size - 1 : 0;
    size_t stored = 0;
    for (;;) {
        if (m_nPosition == m_nValid && !Fill()) {
            if (size != 0) {
                buffer[stored] = 0;
            }
            return stored != 0;
        }
        char const* begin = m_arBuffer + m_nPosition;
        size_t const waiting = m_nValid - m_nPosition;
        size_t const run = static_cast<size_t>(FindLineEnd(begin, waiting) - begin);
        size_t const take = std::min(run, room - stored);
        if (take != 0) {
            memcpy(buffer + stored, begin, take);
            stored += take;
        }
        m_nPosition += run;
        if (run == waiting) {
            continue;  // the line goes on in the next block
        }
        if (m_arBuffer[m_nPosition++] == '\r') {
            // The LF of a CR LF pair may only arrive with the next block.
            if (m_nPosition == m_nValid) {
                Fill();
            }
            if (m_nPosition < m_nValid && m_arBuffer[m_nPosition] == '\n') {
                ++m_nPosition;
            }
        }
        if (size != 0) {
            buffer[stored] = 0;
        }
        return true;
    }
}

size_t LReadFileBuffered::Read(void* buffer, size_t count) {
    auto* out = static_cast<char*>(buffer);
    size_t done = 0;
    while (done < count) {
        if (m_nPosition < m_nValid) {
            size_t const n = std::min(m_nValid - m_nPosition, count - done);
            memcpy(out + done, m_arBuffer + m_nPosition, n);
            m_nPosition += n;
            done += n;
            continue;
        }
        size_t const left = count - done;
        if (left >= kDirectReadSize && m_hFile != -1) {
            m_nPosition = 0;
            m_nValid = 0;
            ssize_t const n = ReadOnce(m_hFile, out + done, left);
            if (n > 0) {
                done += static_cast<size_t>(n);
            }
            break;
        }
        if (!Fill()) {
            break;
        }
    }
    return done;
}

size_t LReadFileBuffered::Peek(void* buffer, size_t count) {
    if (count <= m_nValid - m_nPosition) {
        memcpy(buffer, m_arBuffer + m_nPosition, count);
        return count;
    }
    size_t const n = Read(buffer, count);
    // The peeked bytes become the buffer. When they fit, the descriptor already stands just
    // behind them and the logical position is back where it was; otherwise it is moved back
    // to the end of the part the buffer holds.
    size_t const keep = std::min(n, kBufferSize);
    if (n > keep) {
        unsigned long long const start = Tell64() - n;
        lseek(m_hFile, static_cast<off_t>(start + keep), SEEK_SET);
    }
    memcpy(m_arBuffer, buffer, keep);
    m_nPosition = 0;
    m_nValid = keep;
    return n;
}

int LReadFileBuffered::Seek(unsigned int offset) {
    return Seek64(offset);
}

int LReadFileBuffered::Seek64(unsigned long long offset) {
    m_nPosition = 0;
    m_nValid = 0;
    if (m_hFile != -1) {
        lseek(m_hFile, static_cast<off_t>(offset), SEEK_SET);
    }
    return 0;
}

int LReadFileBuffered::SeekOffset64(long long delta) {
    if (m_hFile != -1) {
        auto const waiting = static_cast<long long>(m_nValid - m_nPosition);
        lseek(m_hFile, static_cast<off_t>(delta - waiting), SEEK_CUR);
    }
    m_nPosition = 0;
    m_nValid = 0;
    return 0;
}

unsigned long long LReadFileBuffered::Tell64() const {
    if (m_hFile == -1) {
        return 0;
    }
    off_t const at = lseek(m_hFile, 0, SEEK_CUR);
    if (at < 0) {
        return 0;
    }
    return static_cast<unsigned long long>(at) - (m_nValid - m_nPosition);
}

unsigned long long LReadFileBuffered::GetFileSizeBytes64() const {
    struct stat st;
    if (m_hFile == -1 || fstat(m_hFile, &st) != 0) {
        return 0;
    }
    return static_cast<unsigned long long>(st.st_size);
}

// ---- LLockFile -----------------------------------------------------------------------------

bool LLockFile::Lock(char const* path) {
    Release();
    LFile::_ApplyNewFileExtension(m_szPath, path, ".lck");
    int const fd = _LOpenExclusiveNonBlocking(m_szPath, 0777);
    if (fd != -1) {
        m_hFile = fd;
        return true;
    }
    return errno != EWOULDBLOCK;
}

void LLockFile::Release() {
    if (m_hFile == -1) {
        return;
    }
    // The name goes while the lock is still held: closing first would let another process
    // lock the file in between and then lose it to this unlink.
    unlink(m_szPath);
    close(m_hFile);
    m_hFile = -1;
}
