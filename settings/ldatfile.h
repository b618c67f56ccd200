// Sectioned data files: small text files of "[section]" headers followed by "key=value"
// lines, ended by CR LF, each section closed by one empty line.
//
// Every data file the process touches is cached in one process-wide registry
// (gDatFileNativeSystem, see settings/ldatfile_native.h). Before every get and set the cache
// is compared with the file's modification time (whole seconds) and size; when either has
// moved the file is read again and merged into memory, so keys another process removed are
// still answered from memory. Every set writes the whole file back. Sections, keys and paths
// match regardless of ASCII case and keep the spelling first stored; names, keys and values
// are cut to 259 characters.
//
// One quirk is kept on purpose because existing files and callers rely on it: the first value
// of a new section is saved before the section joins the file, so it reaches the disk only
// with the file's next save.
//
// Nothing here reports failure: a missing file reads as empty, a file that cannot be written
// keeps its memory image and stays dirty.
#pragma once

#include <cstddef>
#include <cstdint>

#include "text/ldatetime.h"
#include "text/lsoundtime.h"

// Paths, section names, keys, values and the caller buffers they are copied into.
inline constexpr size_t kLDatFileTextSize = 260;
// One line of the file as read or written, CR LF included on writing.
inline constexpr size_t kLDatFileLineSize = 552;
// A cached file unused for this long is dropped by LDatFileFlush().
inline constexpr uint32_t kLDatFileIdleMs = 600000;

// Sets one value and saves the file. A null value deletes the key; a null key deletes the
// whole section, which is saved only with a later save of the file.
void LDatFileSetValue(char const* path, char const* section, char const* key, char const* value);
// Copies the value into out (260 bytes); absent section or key gives defaultValue (cut to 259).
void LDatFileGetValue(char const* path, char const* section, char const* key,
                      char const* defaultValue, char* out);
// Saves that one file if it is cached and dirty.
void LDatFileFlush(char const* path);
// Drops every file unused for kLDatFileIdleMs (saving it first when dirty), then saves every
// remaining dirty file.
void LDatFileFlush();

// The registry's clock: milliseconds of the wall clock in 32 bits, wrapping. A test or a
// benchmark may replace it; null restores the wall clock.
using LDatFileClock = uint32_t (*)();
void _LDatFileSetClock(LDatFileClock clock);

// Typed access to one data file. The object holds only the file's path; every accessor goes
// through LDatFileSetValue and LDatFileGetValue, and every getter gives the default for an
// absent or empty value.
class LDatFile {
public:
    LDatFile() { m_szPath[0] = 0; }
    explicit LDatFile(char const* path) { SetPath(path); }

    // Cut to 259 characters.
    void SetPath(char const* path);
    char const* GetPath() const { return m_szPath; }

    void SetString(char const* section, char const* key, char const* value);
    // out holds 260 bytes; absent gives defaultValue.
    void GetString(char const* section, char const* key, char const* defaultValue, char* out) const;
    // A null key removes the section, a null value the key.
    void Delete(char const* section, char const* key);

    void SetInt64(char const* section, char const* key, long long value);  // "%lld"
    long long GetInt64(char const* section, char const* key, long long defaultValue) const;
    // "%d" of the low 32 bits: values outside the signed 32-bit range wrap, as files written
    // so far hold them. Read back with strtol into the full width.
    void SetLong(char const* section, char const* key, long value);
    long GetLong(char const* section, char const* key, long defaultValue) const;
    // "true" or "false"; reading is true exactly when the text begins with 't'.
    void SetBool(char const* section, char const* key, bool value);
    bool GetBool(char const* section, char const* key, bool defaultValue) const;
    // "HH:MM:SS" of seconds since midnight; read as "%d:%d:%d", missing fields 0.
    void SetDayTime(char const* section, char const* key, LDayTime value);
    LDayTime GetDayTime(char const* section, char const* key, LDayTime defaultValue) const;
    // "%ddB"; -128 (silence) is written "--dB", which reads back as -127.
    void SetDB(char const* section, char const* key, LdB<signed char> value);
    LdB<signed char> GetDB(char const* section, char const* key,
                           LdB<signed char> defaultValue) const;
    // "H:MM:SS.mmm".
    void SetSoundTime(char const* section, char const* key, LSoundTime value);
    LSoundTime GetSoundTime(char const* section, char const* key, LSoundTime defaultValue) const;

    // Numbered lists: the count lives under "<prefix>count", item i under
    // "<prefix><i><suffix>".
    long GetListCount(char const* section, char const* prefix) const;
    void SetListCount(char const* section, char const* prefix, long count);
    // Raises the count by one and returns the index for the new item.
    long AddList(char const* section, char const* prefix);
    // Moves one item's value to another index. Nothing is renumbered and the count stays:
    // moving onto an occupied index overwrites that item, as callers expect.
    void MoveListItem(char const* section, char const* prefix, char const* suffix, long from,
                      long to);

private:
    char m_szPath[kLDatFileTextSize];
};
