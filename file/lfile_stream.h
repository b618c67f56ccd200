// File streams on plain descriptors: unowning read and write references for lines and
// length-prefixed strings, an owning writer, a buffered reader, the lock file, and the timed
// advisory lock they all use.
//
// None of these types opens a file (LLockFile aside); a descriptor of -1 means "no file", and
// every operation on it does nothing and reads as end of file. Reads stop at the first short
// read and writes do not check their results: callers that must know test the data they got.
// Advisory locks are best effort throughout: after the time limit the file is used without.
#pragma once

#include <cstddef>

#include "file/lfile.h"
#include "text/lstring.h"

// Asks for the flock operation (LOCK_SH or LOCK_EX) without blocking, sleeping between
// refusals: first timeoutMs / 32 + 1 ms, doubling while the sleep stays below the limit; no
// attempt follows the last sleep. Gives up at once on any error but "would block". The
// caller is not told whether the lock was obtained.
void flocktimed(int fd, int operation, unsigned int timeoutMs);

// Reads lines and strings from a descriptor it does not own, one system read per byte where
// a line end must be found (the position stays exact for whoever reads next).
class LReadFileRef {
public:
    LReadFileRef() = default;
    explicit LReadFileRef(int fd) : m_hFile(fd) {}

    int GetFileDescriptor() const { return m_hFile; }
    bool IsOpen() const { return m_hFile != -1; }

    // One line without its end into buffer (size bytes, at most size - 1 characters kept,
    // the rest of a longer line dropped). CR, LF, CR LF and LF CR each end one line. False
    // only at the end of the file with nothing stored.
    bool ReadLine(char* buffer, size_t size);
    // The same without a length limit.
    bool ReadLine(LStringLongTemplate<char>& line);
    // A length-prefixed UTF-8 string into a 260-byte buffer (at most 259 bytes kept); the
    // rest of a longer text is skipped so that the next read starts behind it.
    void ReadStringLenUTF8(char* buffer);
    // Up to length raw bytes, terminated (buffer holds length + 1 bytes).
    void ReadStringUTF8(char* buffer, unsigned int length);

private:
    int m_hFile = -1;
};

// Writes text to a descriptor it does not own.
class LWriteFileRef {
public:
    LWriteFileRef() = default;
    explicit LWriteFileRef(int fd) : m_hFile(fd) {}

    int GetFileDescriptor() const { return m_hFile; }
    bool IsOpen() const { return m_hFile != -1; }

    // The bytes of the text, no terminator.
    void WriteString(char const* text);
    void WriteString(LStringLongTemplate<char> const& text);
    void WriteStringUTF8(char const* text);
    // The text, then "\r\n" / "\n".
    void WriteLineCRLF(char const* text);
    void WriteLineLF(char const* text);
    // Length below 255: one length byte, then the text. 255 or more: 0xFF, the length as a
    // 32-bit little-endian integer, then the text.
    void WriteStringLenUTF8(char const* text);
    // The bytes as they are.
    void Write(void const* data, size_t size);

protected:
    int m_hFile = -1;
};

// A writer that owns its descriptor and closes it when destroyed.
class LWriteFile : public LWriteFileRef {
public:
    LWriteFile() = default;
    explicit LWriteFile(int fd) : LWriteFileRef(fd) {}
    ~LWriteFile();
    LWriteFile(LWriteFile const&) = delete;
    LWriteFile& operator=(LWriteFile const&) = delete;
};

// Formats with the library's printf conventions and writes the result as WriteString does.
void fprintf(LWriteFileRef file, char const* format, ...);

// Reads through an 8192-byte buffer from a descriptor it does not own. The logical position
// (what Tell64 answers and where the next read starts) is the descriptor's position less the
// bytes still waiting in the buffer; every operation keeps that true.
class LReadFileBuffered {
public:
    static constexpr size_t kBufferSize = 8192;
    // Reads of at least this many bytes that find the buffer empty go straight to the
    // caller's memory.
    static constexpr size_t kDirectReadSize = 257;

    LReadFileBuffered() = default;
    explicit LReadFileBuffered(int fd) : m_hFile(fd) {}
    LReadFileBuffered(LReadFileBuffered const&) = delete;
    LReadFileBuffered& operator=(LReadFileBuffered const&) = delete;

    int GetFileDescriptor() const { return m_hFile; }

    // One line without its end (at most size - 1 characters kept, the rest dropped). LF ends
    // a line; CR ends one and takes a directly following LF with it; LF CR is two line ends.
    // False only at the end of the file with nothing stored.
    bool ReadLine(char* buffer, size_t size);
    // Up to count bytes; fewer only at the end of the file or on a failed read.
    size_t Read(void* buffer, size_t count);
    // What Read would deliver, leaving the logical position where it was.
    size_t Peek(void* buffer, size_t count);
    // Absolute and relative repositioning; the buffer is emptied. All answer 0.
    int Seek(unsigned int offset);
    int Seek64(unsigned long long offset);
    int SeekOffset64(long long delta);
    unsigned long long Tell64() const;
    // 0 without a descriptor or when its status cannot be read.
    unsigned long long GetFileSizeBytes64() const;

private:
    // Refills the empty buffer; false at the end of the file or on a failed read.
    bool Fill();

    int m_hFile = -1;
    char m_arBuffer[kBufferSize];
    size_t m_nPosition = 0;
    size_t m_nValid = 0;
};

// An exclusive lock file beside a document ("take.wav" is guarded by "take.lck"). The lock is
// held while the object keeps the file open; releasing it closes and deletes the file.
class LLockFile {
public:
    LLockFile() { m_szPath[0] = 0; }
    ~LLockFile() { Release(); }
    LLockFile(LLockFile const&) = delete;
    LLockFile& operator=(LLockFile const&) = delete;

    // Releases a held lock, then creates and locks the ".lck" file of path without waiting.
    // False only when another holder has the lock; a lock file that cannot be made at all
    // answers true without a lock, so that it never stops the caller.
    bool Lock(char const* path);
    bool IsLocked() const { return m_hFile != -1; }

private:
    void Release();

    int m_hFile = -1;
    char m_szPath[kLPathSize];
};
