// The documents the user opened recently: a walk over the desktop's recent-documents list,
// newest first, handing each existing file (not folder) whose extension is accepted to a
// collector that decides whether the walk goes on.
#pragma once

#include <cstddef>

#include "text/lstring.h"

class LFileGetUserRecentFilesData {
public:
    // maxCount 0 collects without limit; times are seconds since 1970, below 1 for none.
    explicit LFileGetUserRecentFilesData(size_t maxCount = 0, long startTime = 0, long endTime = 0)
        : m_nMaxCount(maxCount), m_nStartTime(startTime), m_nEndTime(endTime) {}
    virtual ~LFileGetUserRecentFilesData() = default;

    // Accepts every non-empty extension; subclasses narrow it.
    virtual bool IsExtValid(const char* extension);
    // Adds the path when its modification time is inside the set window. False ends the
    // walk: a time before the earliest one (the list is newest first), or the limit reached.
    virtual bool AddFilePath(const char* path);

    void SetMaxCount(size_t maxCount) { m_nMaxCount = maxCount; }
    void SetStartTime(long startTime) { m_nStartTime = startTime; }
    void SetEndTime(long endTime) { m_nEndTime = endTime; }

    const LStringListTemplate<char>& GetPaths() const { return m_paths; }

protected:
    LStringListTemplate<char> m_paths;
    size_t m_nMaxCount;
    long m_nStartTime;
    long m_nEndTime;
};

// Walks the user's recent-documents list newest first, feeding data (see above).
void GetUserRecentFiles(LFileGetUserRecentFilesData& data);
