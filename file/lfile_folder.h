// Folder walks and the long-running copy jobs.
//
// A walk holds one open folder stream and the entry last read from it; the entry is current
// exactly while the walk is open (a walk closes itself when it runs out of entries). A
// pattern walk never yields "." and "..", nor archive-metadata folders ("__MACOSX..."), and
// matches names ignoring ASCII case; an all-files walk yields every entry, "." and ".."
// included, and leaves skipping them to the caller.
//
// The jobs report through LProcessInterface and answer 0 done, 1 stopped at the caller's
// request, 2 failed; a copy that does not finish leaves no destination file behind.
#pragma once

#include <dirent.h>

#include <cstddef>

#include "file/lfile.h"
#include "file/lfile_stream.h"
#include "thread/lprocess_interface.h"

class LFile::FolderIterator {
public:
    FolderIterator() {
        m_szFolder[0] = 0;
        m_szPattern[0] = 0;
    }
    virtual ~FolderIterator() { Close(); }
    FolderIterator(FolderIterator const&) = delete;
    FolderIterator& operator=(FolderIterator const&) = delete;

    // Opens folder (which must be a directory) and moves to the first entry matching
    // pattern (both cut to 259 characters). False, with the walk closed, when there is none.
    bool Open(char const* folder, char const* pattern);
    // A regular file walks its folder with its own name as the pattern (yielding that one
    // file); anything else is walked as a folder with the pattern "*".
    bool Open(char const* path);
    // Moves to the next matching entry; false, with the walk closed, at the end.
    bool Next();
    void Close();
    bool IsOpen() const { return m_pDir != nullptr; }

    // The current entry's name, and its path (folder joined with the name, 260 bytes).
    char const* GetFileName() const { return m_pEntry != nullptr ? m_pEntry->d_name : ""; }
    void GetFilePath(char* dst) const;
    char const* GetFolder() const { return m_szFolder; }

    // "." and "..", and every name starting with "__MACOSX"; false for null.
    bool IsDotFolderOrMetadata(char const* name) const;
    // Reads the next raw entry; at the end closes the walk and answers false.
    bool _GetNextFile();

protected:
    virtual bool _Matches(char const* name) const;

private:
    DIR* m_pDir = nullptr;
    dirent* m_pEntry = nullptr;
    char m_szFolder[kLPathSize];
    char m_szPattern[kLPathSize];
};

class LFile::FolderIteratorAllFiles : public LFile::FolderIterator {
protected:
    bool _Matches(char const* name) const override;
};

// Job descriptions for Process: the paths are borrowed for the job's duration.
struct LProcessCopyFile {
    char const* source;
    char const* destination;
};
struct LProcessCopyFolder {
    char const* source;
    char const* destination;
};

// Copies one file in 32768-byte chunks under shared and exclusive advisory locks (1000 ms
// each, best effort), giving the copy the source's times in whole seconds.
int Process(LProcessInterface& process, LProcessCopyFile const& job);
// Copies a folder's entries one by one, creating subfolders, each entry's progress spanning
// its share of the bar from the start (the bar restarts with every entry).
int Process(LProcessInterface& process, LProcessCopyFolder const& job);

// Move size bytes through the file's descriptor in chunks of 10240, asking whether to stop
// before each and reporting progress after each. A short transfer or a closed file gives 2.
int LProcessFileRead(LProcessInterface& process, LReadFileRef& file, void* buffer, size_t size);
int LProcessFileWrite(LProcessInterface& process, LWriteFileRef& file, void const* buffer,
                      size_t size);
