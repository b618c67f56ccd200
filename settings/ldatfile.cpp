// The data-file cache (registry, records, reading, merging, saving, eviction) and the typed
// LDatFile front end. See ldatfile.h for the format and ldatfile_native.h for the records.
#include "settings/ldatfile.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "file/lfile_stream.h"
#include "settings/ldatfile_native.h"
#include "settings/ldatfile_platform.h"
#include "text/lstring.h"

namespace {

constexpr size_t kMaxText = kLDatFileTextSize - 1;  // 259
constexpr unsigned int kReadLockMs = 2000;
constexpr unsigned int kWriteLockMs = 1000;
// Saved text is gathered up to about this size before each write.
constexpr size_t kWriteChunk = 64 * 1024;

std::string_view Cut(std::string_view text) {
    return text.substr(0, kMaxText);
}
std::string_view Cut(char const* text) {
    return text == nullptr ? std::string_view() : std::string_view(text, strnlen(text, kMaxText));
}

void CopyCut(char* out, std::string_view text) {
    text = Cut(text);
    memcpy(out, text.data(), text.size());
    out[text.size()] = 0;
}

char FoldCase(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

std::atomic<LDatFileClock> gClock{nullptr};

}  // namespace

uint32_t _LDatFileHashName(std::string_view name) {
    uint32_t hash = 2166136261u;
    for (char c : name) {
        hash = (hash ^ static_cast<unsigned char>(FoldCase(c))) * 16777619u;
    }
    return hash;
}

bool _LDatFileSameName(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (size_t i = 0; i < a.size(); ++i) {
        if (FoldCase(a[i]) != FoldCase(b[i])) {
            return false;
        }
    }
    return true;
}

void _LDatFileSetClock(LDatFileClock clock) {
    gClock.store(clock);
}

uint32_t _LDatFileNow() {
    LDatFileClock clock = gClock.load();
    return clock != nullptr ? clock() : _LDatFileWallClock();
}

// ---- Index and chain ----

template <class T>
T* LDatFileIndex<T>::Find(std::string_view name, uint32_t hash) const {
    if (m_slots.empty()) {
        return nullptr;
    }
    const size_t mask = m_slots.size() - 1;
    for (size_t i = hash & mask;; i = (i + 1) & mask) {
        T* record = m_slots[i];
        if (record == nullptr) {
            return nullptr;
        }
        if (record->nHash == hash && _LDatFileSameName(record->Name(), name)) {
            return record;
        }
    }
}

template <class T>
void LDatFileIndex<T>::Insert(T* record) {
    if ((m_nCount + 1) * 2 > m_slots.size()) {
        Grow();
    }
    const size_t mask = m_slots.size() - 1;
    size_t i = record->nHash & mask;
    while (m_slots[i] != nullptr) {
        i = (i + 1) & mask;
    }
    m_slots[i] = record;
    ++m_nCount;
}

template <class T>
void LDatFileIndex<T>::Erase(T* record) {
    if (m_slots.empty()) {
        return;
    }
    const size_t mask = m_slots.size() - 1;
    size_t hole = record->nHash & mask;
    while (m_slots[hole] != record) {
        if (m_slots[hole] == nullptr) {
            return;
        }
        hole = (hole + 1) & mask;
    }
    m_slots[hole] = nullptr;
    --m_nCount;
    // Moves back every later record of the run whose home slot does not lie between the hole
    // and itself, so that no probe sequence is broken by the new gap.
    for (size_t i = (hole + 1) & mask; m_slots[i] != nullptr; i = (i + 1) & mask) {
        const size_t home = m_slots[i]->nHash & mask;
        const bool homeInGap = hole <= i ? (home > hole && home <= i) : (home > hole || home <= i);
        if (!homeInGap) {
            m_slots[hole] = m_slots[i];
            m_slots[i] = nullptr;
            hole = i;
        }
    }
}

template <class T>
void LDatFileIndex<T>::Grow() {
    std::vector<T*> old;
    old.swap(m_slots);
    m_slots.assign(old.empty() ? 8 : old.size() * 2, nullptr);
    const size_t mask = m_slots.size() - 1;
    for (T* record : old) {
        if (record != nullptr) {
            size_t i = record->nHash & mask;
            while (m_slots[i] != nullptr) {
                i = (i + 1) & mask;
            }
            m_slots[i] = record;
        }
    }
}

template <class T>
void LDatFileChain<T>::Unlink(T* record) {
    for (T** link = &m_pHead; *link != nullptr; link = &(*link)->pNext) {
        if (*link == record) {
            *link = record->pNext;
            if (m_ppTail == &record->pNext) {
                m_ppTail = link;
            }
            record->pNext = nullptr;
            return;
        }
    }
}

template <class T>
void LDatFileChain<T>::Clear() {
    while (T* record = m_pHead) {
        m_pHead = record->pNext;
        delete record;
    }
    m_ppTail = &m_pHead;
}

template class LDatFileIndex<LDatFileNativeValue>;
template class LDatFileIndex<LDatFileNativeSection>;
template class LDatFileChain<LDatFileNativeValue>;
template class LDatFileChain<LDatFileNativeSection>;

// ---- Sections ----

void LDatFileNativeSection::Set(std::string_view key, std::string_view value) {
    key = Cut(key);
    value = Cut(value);
    const uint32_t hash = _LDatFileHashName(key);
    if (LDatFileNativeValue* found = index.Find(key, hash)) {
        found->value.assign(value);
        return;
    }
    auto record = std::make_unique<LDatFileNativeValue>();
    record->nHash = hash;
    record->key.assign(key);
    record->value.assign(value);
    index.Insert(record.get());
    values.Append(record.release());
}

void LDatFileNativeSection::Delete(std::string_view key) {
    key = Cut(key);
    if (LDatFileNativeValue* found = index.Find(key, _LDatFileHashName(key))) {
        index.Erase(found);
        values.Unlink(found);
        delete found;
    }
}

// ---- Files ----

LDatFileNativeFile::LDatFileNativeFile(char const* path) : m_nLastUse(_LDatFileNow()) {
    CopyCut(m_szPath, Cut(path));
}

LDatFileNativeFile::~LDatFileNativeFile() = default;

LDatFileNativeSection* LDatFileNativeFile::AddSection(std::string_view name) {
    auto section = std::make_unique<LDatFileNativeSection>();
    section->name.assign(Cut(name));
    section->nHash = _LDatFileHashName(section->name);
    m_sectionIndex.Insert(section.get());
    m_sections.Append(section.get());
    return section.release();
}

void LDatFileNativeFile::RemoveSection(LDatFileNativeSection* section) {
    m_sectionIndex.Erase(section);
    m_sections.Unlink(section);
    delete section;
}

void LDatFileNativeFile::SetValue(char const* sectionName, char const* key, char const* value) {
    m_bDirty = true;
    m_nLastUse = _LDatFileNow();
    ReloadIfChanged();

    const std::string_view name = Cut(sectionName);
    if (LDatFileNativeSection* section = FindSection(name)) {
        if (key == nullptr) {
            // Left dirty: the removal reaches the disk with the next save or flush.
            RemoveSection(section);
            return;
        }
        if (value != nullptr) {
            section->Set(Cut(key), Cut(value));
        } else {
            section->Delete(Cut(key));
        }
        Save();
        return;
    }
    if (key == nullptr) {
        return;
    }
    // The save comes before the new section joins the file, so the file on disk does not yet
    // hold it and the save clears the dirty flag. Files and callers depend on this order.
    auto fresh = std::make_unique<LDatFileNativeSection>();
    fresh->name.assign(name);
    fresh->nHash = _LDatFileHashName(fresh->name);
    if (value != nullptr) {
        fresh->Set(Cut(key), Cut(value));
    }
    Save();
    m_sectionIndex.Insert(fresh.get());
    m_sections.Append(fresh.release());
}

char const* LDatFileNativeFile::GetValue(char const* sectionName, char const* key) {
    ReloadIfChanged();
    LDatFileNativeSection* section = FindSection(Cut(sectionName));
    if (section == nullptr) {
        return nullptr;
    }
    LDatFileNativeValue* found = section->Find(Cut(key));
    return found != nullptr ? found->value.c_str() : nullptr;
}

void LDatFileNativeFile::ReloadIfChanged() {
    LDatFileStamp stamp;
    if (!_LDatFileStat(m_szPath, stamp)) {
        return;  // a missing file leaves the memory image as it is
    }
    if (stamp.modified == m_nModified && stamp.size == m_nSize) {
        return;
    }
    const int fd = _LDatFileOpenShared(m_szPath, kReadLockMs);
    if (fd < 0) {
        return;
    }
    ReadFrom(fd);
    m_nModified = stamp.modified;
    m_nSize = stamp.size;
    m_bDirty = false;
    _LDatFileClose(fd);
}

void LDatFileNativeFile::ReadFrom(int fd) {
    // The buffered reader gives the same non-empty lines as a byte-wise one (it only turns
    // LF CR into two line ends, and empty lines mean nothing here), without a system call
    // per byte.
    LReadFileBuffered reader(fd);
    char line[kLDatFileLineSize];
    LDatFileNativeSection* current = nullptr;
    while (reader.ReadLine(line, sizeof line)) {
        const std::string_view text(line);
        if (!text.empty() && text.front() == '[') {
            std::string_view name = text.substr(1);
            name = name.substr(0, name.find(']'));
            name = Cut(name);
            current = FindSection(name);
            if (current == nullptr) {
                current = AddSection(name);
            }
            continue;
        }
        const size_t equals = text.find('=');
        if (current != nullptr && equals != std::string_view::npos) {
            current->Set(text.substr(0, equals), text.substr(equals + 1));
        }
    }
}

void LDatFileNativeFile::WriteTo(int fd) const {
    std::string out;
    out.reserve(kWriteChunk + kLDatFileLineSize);
    char line[kLDatFileLineSize];
    auto put = [&](unsigned long length) {
        out.append(line, length);
        if (out.size() >= kWriteChunk) {
            _LDatFileWrite(fd, out.data(), out.size());
            out.clear();
        }
    };
    for (LDatFileNativeSection* section = m_sections.Head(); section != nullptr;
         section = section->pNext) {
        put(tplsnprintf(line, sizeof line, "[%s]\r\n", section->name.c_str()));
        for (LDatFileNativeValue* value = section->values.Head(); value != nullptr;
             value = value->pNext) {
            put(tplsnprintf(line, sizeof line, "%s=%s\r\n", value->key.c_str(),
                            value->value.c_str()));
        }
        put(tplsnprintf(line, sizeof line, "\r\n"));
    }
    _LDatFileWrite(fd, out.data(), out.size());
    _LDatFileTruncateHere(fd);
}

void LDatFileNativeFile::Save() {
    const int fd = _LDatFileOpenExclusive(m_szPath, kWriteLockMs);
    if (fd < 0) {
        return;  // memory image and dirty flag stay for a later save
    }
    WriteTo(fd);
    _LDatFileClose(fd);
    LDatFileStamp stamp;
    if (!_LDatFileStat(m_szPath, stamp)) {
        stamp = LDatFileStamp();
    }
    m_nModified = stamp.modified;
    m_nSize = stamp.size;
    m_bDirty = false;
}

// ---- Registry ----

namespace {

// The registry's static storage. Nothing in it is built before LDatFileNativeSystem::Create,
// which the program's static initialiser calls at its fixed place.
struct RegistryStorage {
    union {
        char unbuilt;
        LDatFileNativeSystem system;
    };
    constexpr RegistryStorage() : unbuilt(0) {}
    ~RegistryStorage() {}
};

constinit RegistryStorage gRegistryStorage;
constinit std::once_flag gRegistryCreated;

void DestroyRegistry() {
    gRegistryStorage.system.~LDatFileNativeSystem();
}

LDatFileNativeSystem& Registry() {
    LDatFileNativeSystem::Create();
    return gRegistryStorage.system;
}

}  // namespace

constinit LDatFileNativeSystem& gDatFileNativeSystem = gRegistryStorage.system;

LDatFileNativeSystem::LDatFileNativeSystem() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

LDatFileNativeSystem::~LDatFileNativeSystem() {
    m_files.Clear();
    pthread_mutex_destroy(&m_mutex);
}

void LDatFileNativeSystem::Create() {
    std::call_once(gRegistryCreated, [] {
        new (&gRegistryStorage.system) LDatFileNativeSystem();
        std::atexit(DestroyRegistry);
    });
}

LDatFileNativeFile* LDatFileNativeSystem::Find(char const* path) const {
    const std::string_view wanted = Cut(path);
    return m_files.FindFirst(
        [&](LDatFileNativeFile const& file) { return _LDatFileSameName(file.GetPath(), wanted); });
}

LDatFileNativeFile* LDatFileNativeSystem::FindOrCreate(char const* path) {
    if (LDatFileNativeFile* file = Find(path)) {
        return file;
    }
    auto* file = new LDatFileNativeFile(path != nullptr ? path : "");
    m_files.PushFront(file);
    return file;
}

void LDatFileNativeSystem::EvictIdle(uint32_t now) noexcept {
    auto idle = [now](LDatFileNativeFile const& file) {
        return static_cast<uint32_t>(now - file.GetLastUse()) >= kLDatFileIdleMs;
    };
    while (LDatFileNativeFile* file = m_files.RemoveFirst(idle)) {
        if (file->IsDirty()) {
            file->Save();
        }
        delete file;
    }
}

void LDatFileNativeSystem::FlushAll() {
    EvictIdle(_LDatFileNow());
    for (LDatFileNativeFile& file : m_files) {
        if (file.IsDirty()) {
            file.Save();
        }
    }
}

// ---- Free functions ----

void LDatFileSetValue(char const* path, char const* section, char const* key, char const* value) {
    LDatFileNativeSystem& registry = Registry();
    std::lock_guard<LDatFileNativeSystem> hold(registry);
    registry.FindOrCreate(path)->SetValue(section, key, value);
}

void LDatFileGetValue(char const* path, char const* section, char const* key,
                      char const* defaultValue, char* out) {
    LDatFileNativeSystem& registry = Registry();
    std::lock_guard<LDatFileNativeSystem> hold(registry);
    char const* found = registry.FindOrCreate(path)->GetValue(section, key);
    CopyCut(out, Cut(found != nullptr ? found : defaultValue));
}

void LDatFileFlush(char const* path) {
    LDatFileNativeSystem& registry = Registry();
    std::lock_guard<LDatFileNativeSystem> hold(registry);
    LDatFileNativeFile* file = registry.Find(path);
    if (file != nullptr && file->IsDirty()) {
        file->Save();
    }
}

void LDatFileFlush() {
    LDatFileNativeSystem& registry = Registry();
    std::lock_guard<LDatFileNativeSystem> hold(registry);
    registry.FlushAll();
}

// ---- LDatFile ----

namespace {

// Reads a value into a 260-byte buffer; true when it is not empty.
bool ReadText(LDatFile const& file, char const* section, char const* key, char* text) {
    LDatFileGetValue(file.GetPath(), section, key, "", text);
    return text[0] != 0;
}

std::string ListItemKey(char const* prefix, long index, char const* suffix) {
    char key[kLDatFileTextSize];
    tplsnprintf(key, sizeof key, "%s%d%s", prefix, static_cast<int>(index), suffix);
    return key;
}

std::string ListCountKey(char const* prefix) {
    char key[kLDatFileTextSize];
    tplsnprintf(key, sizeof key, "%scount", prefix);
    return key;
}

}  // namespace

void LDatFile::SetPath(char const* path) {
    CopyCut(m_szPath, Cut(path));
}

void LDatFile::SetString(char const* section, char const* key, char const* value) {
    LDatFileSetValue(m_szPath, section, key, value);
}

void LDatFile::GetString(char const* section, char const* key, char const* defaultValue,
                         char* out) const {
    LDatFileGetValue(m_szPath, section, key, defaultValue, out);
}

void LDatFile::Delete(char const* section, char const* key) {
    LDatFileSetValue(m_szPath, section, key, nullptr);
}

void LDatFile::SetInt64(char const* section, char const* key, long long value) {
    char text[kLDatFileTextSize];
    tplsnprintf(text, sizeof text, "%lld", value);
    SetString(section, key, text);
}

long long LDatFile::GetInt64(char const* section, char const* key, long long defaultValue) const {
    char text[kLDatFileTextSize];
    return ReadText(*this, section, key, text) ? ttoi64template(text) : defaultValue;
}

void LDatFile::SetLong(char const* section, char const* key, long value) {
    char text[kLDatFileTextSize];
    tplsnprintf(text, sizeof text, "%d",
                static_cast<int>(static_cast<uint32_t>(static_cast<unsigned long>(value))));
    SetString(section, key, text);
}

long LDatFile::GetLong(char const* section, char const* key, long defaultValue) const {
    char text[kLDatFileTextSize];
    return ReadText(*this, section, key, text) ? std::strtol(text, nullptr, 10) : defaultValue;
}

void LDatFile::SetBool(char const* section, char const* key, bool value) {
    SetString(section, key, value ? "true" : "false");
}

bool LDatFile::GetBool(char const* section, char const* key, bool defaultValue) const {
    char text[kLDatFileTextSize];
    LDatFileGetValue(m_szPath, section, key, defaultValue ? "true" : "", text);
    return text[0] == 't';
}

void LDatFile::SetDayTime(char const* section, char const* key, LDayTime value) {
    const long seconds = value.GetSeconds();
    char text[kLDatFileTextSize];
    tplsnprintf(text, sizeof text, "%.2d:%.2d:%.2d", static_cast<int>(seconds / 3600),
                static_cast<int>((seconds % 3600) / 60), static_cast<int>(seconds % 60));
    SetString(section, key, text);
}

LDayTime LDatFile::GetDayTime(char const* section, char const* key, LDayTime defaultValue) const {
    char text[kLDatFileTextSize];
    if (!ReadText(*this, section, key, text)) {
        return defaultValue;
    }
    int hours = 0;
    int minutes = 0;
    int seconds = 0;
    std::sscanf(text, "%d:%d:%d", &hours, &minutes, &seconds);
    return LDayTime(hours * 3600L + minutes * 60L + seconds);
}

void LDatFile::SetDB(char const* section, char const* key, LdB<signed char> value) {
    char text[kLDatFileTextSize];
    if (value.GetValue() == -128) {
        tplsnprintf(text, sizeof text, "--dB");
    } else {
        tplsnprintf(text, sizeof text, "%ddB", static_cast<int>(value.GetValue()));
    }
    SetString(section, key, text);
}

LdB<signed char> LDatFile::GetDB(char const* section, char const* key,
                                 LdB<signed char> defaultValue) const {
    char text[kLDatFileTextSize];
    if (!ReadText(*this, section, key, text)) {
        return defaultValue;
    }
    LdB<signed char> level;
    level.SetText(text);
    return level;
}

void LDatFile::SetSoundTime(char const* section, char const* key, LSoundTime value) {
    char text[kLDatFileTextSize];
    value._GetText(text);
    SetString(section, key, text);
}

LSoundTime LDatFile::GetSoundTime(char const* section, char const* key,
                                  LSoundTime defaultValue) const {
    char text[kLDatFileTextSize];
    if (!ReadText(*this, section, key, text)) {
        return defaultValue;
    }
    LSoundTime time;
    time.SetText(text);
    return time;
}

long LDatFile::GetListCount(char const* section, char const* prefix) const {
    return GetLong(section, ListCountKey(prefix).c_str(), 0);
}

void LDatFile::SetListCount(char const* section, char const* prefix, long count) {
    char text[kLDatFileTextSize];
    tplsnprintf(text, sizeof text, "%d", static_cast<int>(count));
    SetString(section, ListCountKey(prefix).c_str(), text);
}

long LDatFile::AddList(char const* section, char const* prefix) {
    const long count = GetListCount(section, prefix);
    SetListCount(section, prefix, count + 1);
    return count;
}

void LDatFile::MoveListItem(char const* section, char const* prefix, char const* suffix, long from,
                            long to) {
    const std::string fromKey = ListItemKey(prefix, from, suffix);
    char value[kLDatFileTextSize];
    LDatFileGetValue(m_szPath, section, fromKey.c_str(), "", value);
    Delete(section, fromKey.c_str());
    SetString(section, ListItemKey(prefix, to, suffix).c_str(), value);
}
