// The long-running file jobs: copying a file and moving a buffer through a file, each asking
// the process interface whether to stop and reporting status and progress. (The folder copy
// job walks folders and lives with the tree operations.)
//
// The file copy moves the data itself, in fixed chunks, so that a stop request is honoured
// between any two chunks; what it leaves behind on 1 or 2 is no destination at all.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "file/lfile.h"
#include "file/lfile_folder.h"
#include "file/lfile_stream.h"

namespace {

constexpr size_t kCopyChunk = 32768;
constexpr size_t kTransferChunk = 10240;
constexpr unsigned int kCopyLockMs = 1000;
constexpr double kProgressStep = 0.01;

// One system call that must move exactly size bytes.
bool ReadExactly(int fd, void* data, size_t size) {
    ssize_t n;
    do {
        n = read(fd, data, size);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(size);
}

bool WriteExactly(int fd, void const* data, size_t size) {
    ssize_t n;
    do {
        n = write(fd, data, size);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(size);
}

// Copies the open source into the open destination; 0, 1 or 2.
int CopyChunks(LProcessInterface& process, int in, int out) {
    struct stat st;
    if (fstat(in, &st) != 0 || st.st_size <= 0) {
        return 0;
    }
    auto const size = static_cast<unsigned long long>(st.st_size);
    std::unique_ptr<char[]> buffer(new char[kCopyChunk]);
    unsigned long long copied = 0;
    double reported = 0;
    while (copied < size) {
        if (process.IsToStop()) {
            return 1;
        }
        size_t const chunk =
            static_cast<size_t>(std::min<unsigned long long>(size - copied, kCopyChunk));
        if (!ReadExactly(in, buffer.get(), chunk) || !WriteExactly(out, buffer.get(), chunk)) {
            return 2;
        }
        copied += chunk;
        double const fraction = static_cast<double>(copied) / static_cast<double>(size);
        if (fraction >= reported + kProgressStep) {
            process.SetProgress(fraction);
            reported = fraction;
        }
    }
    return 0;
}

template <typename Transfer>
int MoveThrough(LProcessInterface& process, int fd, size_t size, Transfer&& transfer) {
    if (size == 0) {
        return 0;
    }
    if (fd == -1) {
        return 2;
    }
    for (size_t done = 0; done < size;) {
        if (process.IsToStop()) {
            return 1;
        }
        size_t const chunk = std::min(size - done, kTransferChunk);
        if (!transfer(done, chunk)) {
            return 2;
        }
        done += chunk;
        process.SetProgress(static_cast<double>(done) / static_cast<double>(size));
    }
    return 0;
}

}  // namespace

int Process(LProcessInterface& process, LProcessCopyFile const& job) {
    char name[kLPathSize];
    char display[kLPathSize];
    LFile::_GetFileFromPath(name, job.destination);
    LFile::CompactFilePath(display, name, 50);
    process.SetStatus("Copy File", 0);
    process.SetStatus(display, 1);
    process.SetProgress(0);

    char folder[kLPathSize];
    LFile::_GetFolderFromPath(folder, job.destination);
    if (!LFile::TestFolderExists(folder)) {
        return 2;
    }
    int const in = open(job.source, O_RDONLY | O_CLOEXEC);
    if (in == -1) {
        return 2;
    }
    flocktimed(in, LOCK_SH, kCopyLockMs);
    int const out = open(job.destination, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (out == -1) {
        close(in);
        return 2;
    }
    flocktimed(out, LOCK_EX, kCopyLockMs);
    int result = ftruncate(out, 0) == 0 ? CopyChunks(process, in, out) : 2;
    if (result != 0) {
        close(in);
        close(out);
        unlink(job.destination);
        return result;
    }
    // Whole seconds only: the copy's times compare equal to the source's on file systems
    // that keep no fractions.
    struct stat st;
    if (fstat(in, &st) == 0) {
        timespec const times[2] = {{st.st_atim.tv_sec, 0}, {st.st_mtim.tv_sec, 0}};
        futimens(out, times);
    }
    process.SetProgress(1.0);
    close(in);
    close(out);
    return 0;
}

int LProcessFileRead(LProcessInterface& process, LReadFileRef& file, void* buffer, size_t size) {
    int const fd = file.GetFileDescriptor();
    auto* bytes = static_cast<char*>(buffer);
    return MoveThrough(process, fd, size, [&](size_t done, size_t chunk) {
        return ReadExactly(fd, bytes + done, chunk);
    });
}

int LProcessFileWrite(LProcessInterface& process, LWriteFileRef& file, void const* buffer,
                      size_t size) {
    int const fd = file.GetFileDescriptor();
    auto const* bytes = static_cast<char const*>(buffer);
    return MoveThrough(process, fd, size, [&](size_t done, size_t chunk) {
        return WriteExactly(fd, bytes + done, chunk);
    });
}
