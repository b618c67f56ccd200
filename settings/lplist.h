// Property lists: LPlist owns one mutable dictionary and converts its values to and from the
// library's types; LCFDictionary loads any property-list file (XML or binary) into an
// immutable object. Objects are libplist nodes; a null dictionary is an empty LPlist.
//
// Ownership: values handed out by GetValue stay owned by the dictionary. ConvertToValue makes
// a new object that the caller owns until it gives it to SetValue (which takes it) or frees
// it. Nothing here throws; every failure is a false result.
#pragma once

#include <plist/plist.h>

#include <string>
#include <vector>

#include "text/lstring.h"

// A loaded property-list object of any kind, released when replaced or destroyed.
class LCFDictionary {
public:
    LCFDictionary() = default;
    ~LCFDictionary() { Release(); }
    LCFDictionary(const LCFDictionary&) = delete;
    LCFDictionary& operator=(const LCFDictionary&) = delete;

    // Releases what is held, then reads the file named by the URL text "file://localhost%s"
    // (the path is not escaped, so a path with a blank or '%' does not name its file) and
    // parses it. True, holding the result, when parsing succeeded.
    bool CreateFromFullPath(const char* path);
    void Release();
    plist_t GetRef() const { return m_ref; }

private:
    plist_t m_ref = nullptr;
};

// Parses property-list bytes (XML or binary); null when they are not a property list.
plist_t _LPlistParse(const char* data, unsigned long length);
// The keys of a dictionary, in its order.
std::vector<std::string> _LPlistDictionaryKeys(plist_t dictionary);
// The file path of a "file://localhost/..." URL text, percent escapes decoded; false when the
// text is not a valid file URL of this host.
bool _LFileURLToPath(const char* url, LStringLongTemplate<char>& path);

class LPlist {
public:
    LPlist() = default;
    ~LPlist();
    LPlist(const LPlist& other);
    LPlist& operator=(const LPlist& other);

    // Loads the file; on success holds a mutable copy of the loaded dictionary. A failed load
    // (or a file whose top object is not a dictionary) keeps what was held.
    bool CreateFromFile(const char* path);
    // Holds a copy of the dictionary (null: holds nothing).
    void CreateFromDictionary(plist_t dictionary);
    // Writes the dictionary as an XML property list; true when the file was written.
    bool WriteToFile(const char* path) const;

    bool TestKeyExists(const char* key) const;
    // True when some value of the dictionary equals value.
    bool TestValueExists(const void* value) const;
    void RemoveValue(const char* key);
    void RemoveAllValues();
    unsigned long GetSize() const;
    // The value under key, still owned by the dictionary; false when the key is absent.
    bool GetValue(const char* key, const void*& value) const;
    // True, with the element count, when the value under key is an array.
    bool GetValueArraySize(const char* key, unsigned long& count) const;
    // Stores value under key, taking ownership of it (a dictionary is made when none is held).
    bool SetValue(const char* key, const void* value);

    // ---- To values: new objects owned by the caller ----
    static bool ConvertToValue(bool value, const void*& out);
    static bool ConvertToValue(int value, const void*& out);
    static bool ConvertToValue(float value, const void*& out);
    static bool ConvertToValue(const char* text, const void*& out);
    static bool ConvertToValue(const LStringLongTemplate<char>& text, const void*& out);
    static bool ConvertToValue(const LPlist& plist, const void*& out);

    // ---- From values: false when the value is of another kind ----
    static bool ConvertFromValue(const void* value, bool& out);
    static bool ConvertFromValue(const void* value, int& out);
    static bool ConvertFromValue(const void* value, float& out);
    // Copies the whole text: out must hold it (the string form below can measure it first).
    static bool ConvertFromValue(const void* value, char* out);
    static bool ConvertFromValue(const void* value, LStringLongTemplate<char>& out);
    static bool ConvertFromValue(const void* value, LPlist& out);

    plist_t GetDictionary() const { return m_dictionary; }

private:
    void Replace(plist_t dictionary);

    plist_t m_dictionary = nullptr;
};
