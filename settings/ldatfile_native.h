// The records behind the data-file functions: the registry gDatFileNativeSystem, one
// LDatFileNativeFile per cached file, its sections and their values.
//
// Ownership and locking: the registry owns the file records, a file its sections, a section
// its values. Every record is reached only under the registry's recursive mutex, which each
// public data-file function holds for its whole run, disk reads and writes included.
//
// Sections and values keep the order in which they first appeared (new ones are appended),
// because that is the order in which files are written. Beside each ordered chain sits a
// case-insensitive index, so that large files load and answer in linear time; the index never
// decides order, only lookup. File records are few and are kept newest first in an LList.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/llist.h"
#include "settings/ldatfile.h"

// A case-insensitive (ASCII) open-addressing index over records that expose Name() and a
// stored hash. The records are owned elsewhere; the index only points at them.
template <class T>
class LDatFileIndex {
public:
    T* Find(std::string_view name, uint32_t hash) const;
    // name must not be present yet.
    void Insert(T* record);
    void Erase(T* record);
    void Clear() {
        m_slots.clear();
        m_nCount = 0;
    }

private:
    void Grow();

    std::vector<T*> m_slots;  // empty, or a power of two long and at most half full
    size_t m_nCount = 0;
};

// ASCII case-folded FNV-1a, the hash every index above is keyed by.
uint32_t _LDatFileHashName(std::string_view name);
// ASCII case-insensitive equality, as the file format compares names.
bool _LDatFileSameName(std::string_view a, std::string_view b);
// The registry's clock as set by _LDatFileSetClock (the wall clock by default).
uint32_t _LDatFileNow();

// Records of one chain: singly linked in order, with the tail kept for appending.
template <class T>
class LDatFileChain {
public:
    LDatFileChain() = default;
    ~LDatFileChain() { Clear(); }
    LDatFileChain(LDatFileChain const&) = delete;
    LDatFileChain& operator=(LDatFileChain const&) = delete;

    T* Head() const { return m_pHead; }
    void Append(T* record) {
        record->pNext = nullptr;
        *m_ppTail = record;
        m_ppTail = &record->pNext;
    }
    // Unlinks record (which must be in the chain); the caller owns it afterwards.
    void Unlink(T* record);
    void Clear();

private:
    T* m_pHead = nullptr;
    T** m_ppTail = &m_pHead;
};

struct LDatFileNativeValue {
    LDatFileNativeValue* pNext = nullptr;
    uint32_t nHash = 0;
    std::string key;    // at most 259 characters, spelling as first stored
    std::string value;  // at most 259 characters
    std::string_view Name() const { return key; }
};

struct LDatFileNativeSection {
    LDatFileNativeSection* pNext = nullptr;
    uint32_t nHash = 0;
    std::string name;  // at most 259 characters, spelling as first stored
    LDatFileChain<LDatFileNativeValue> values;
    LDatFileIndex<LDatFileNativeValue> index;

    std::string_view Name() const { return name; }
    LDatFileNativeValue* Find(std::string_view key) const {
        return index.Find(key, _LDatFileHashName(key));
    }
    // Replaces the value of an existing key in its place, or appends the key.
    void Set(std::string_view key, std::string_view value);
    void Delete(std::string_view key);
};

class LDatFileNativeFile {
public:
    explicit LDatFileNativeFile(char const* path);
    ~LDatFileNativeFile();
    LDatFileNativeFile(LDatFileNativeFile const&) = delete;
    LDatFileNativeFile& operator=(LDatFileNativeFile const&) = delete;

    char const* GetPath() const { return m_szPath; }
    bool IsDirty() const { return m_bDirty; }
    uint32_t GetLastUse() const { return m_nLastUse; }

    // Marks the file dirty and used, refreshes it, then changes it (see the header of
    // ldatfile.h for the order of a new section's first save).
    void SetValue(char const* section, char const* key, char const* value);
    // The value, or null when the section or the key is absent. Refreshes first.
    char const* GetValue(char const* section, char const* key);

    // Reads the file again when its time or size moved since it was last read or written.
    void ReloadIfChanged();
    // Merges the lines readable from fd (from its current position) into memory.
    void ReadFrom(int fd);
    // Writes every section to fd (which must be positioned at its start) and cuts the file
    // there.
    void WriteTo(int fd) const;
    // Rewrites the file from memory; a file that cannot be opened keeps its dirty flag.
    void Save();

    LDatFileNativeSection* FindSection(std::string_view name) const {
        return m_sectionIndex.Find(name, _LDatFileHashName(name));
    }
    LDatFileNativeSection* FirstSection() const { return m_sections.Head(); }

    LDatFileNativeFile* pNext = nullptr;

private:
    // A new, empty section appended to the file.
    LDatFileNativeSection* AddSection(std::string_view name);
    void RemoveSection(LDatFileNativeSection* section);

    char m_szPath[kLDatFileTextSize];
    uint32_t m_nLastUse;
    bool m_bDirty = false;
    // As last read or written; 0 when unknown.
    int64_t m_nModified = 0;
    int64_t m_nSize = 0;
    LDatFileChain<LDatFileNativeSection> m_sections;
    LDatFileIndex<LDatFileNativeSection> m_sectionIndex;
};

class LDatFileNativeSystem {
public:
    LDatFileNativeSystem();
    // Frees every record without saving: callers flush first.
    ~LDatFileNativeSystem();
    LDatFileNativeSystem(LDatFileNativeSystem const&) = delete;
    LDatFileNativeSystem& operator=(LDatFileNativeSystem const&) = delete;

    // Builds the registry in its static storage and registers its destruction at exit, once;
    // later calls do nothing. The program's static initialiser calls it in its fixed place;
    // every data-file function calls it too, so programs without that initialiser work alike.
    static void Create();

    void Lock() { pthread_mutex_lock(&m_mutex); }
    void Unlock() { pthread_mutex_unlock(&m_mutex); }
    void lock() { Lock(); }
    void unlock() { Unlock(); }

    // The record of path (compared case-insensitively after the 259-character cut), made when
    // missing. Lock held.
    LDatFileNativeFile* FindOrCreate(char const* path);
    LDatFileNativeFile* Find(char const* path) const;
    // LDatFileFlush(): eviction of idle files, then saving of dirty ones. Lock held.
    void FlushAll();

private:
    // A failed save of an evicted file ends the process: its record is already unlinked.
    void EvictIdle(uint32_t now) noexcept;

    pthread_mutex_t m_mutex;
    LList<LDatFileNativeFile> m_files;
};

// The registry, valid once LDatFileNativeSystem::Create() has run.
extern LDatFileNativeSystem& gDatFileNativeSystem;
