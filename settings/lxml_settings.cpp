// The XML settings stores: shared settings, XML setting files and the hidden settings file.
// Every call reads the whole file and every change writes it back whole: nothing is cached,
// so several processes see each other's changes at their next call. A save takes the file's
// exclusive lock without waiting; a file held by another writer is left as it was.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "file/lfile.h"
#include "settings/lblowfish.h"
#include "settings/lsettings.h"
#include "settings/lxml.h"
#include "thread/lprocess_interface.h"

namespace {

constexpr char kSharedFolder[] = "Shared";
constexpr char kSharedFile[] = "SharedSettings.xml";
constexpr char kHiddenFolder[] = ".tessalysoftware";
constexpr char kHiddenFile[] = "kavelplvadhelper.xml";
constexpr char kValue[] = "value";

void CopyCut(char* out, const char* text) {
    size_t n = strnlen(text, kLSettingTextSize - 1);
    memcpy(out, text, n);
    out[n] = 0;
}

void LoadDocument(const char* file, LXMLDocument& document) {
    LProcessInterfaceVoid process;
    char error[kLSettingTextSize];
    if (LFile::TestFileExists(file)) {
        document.LoadFromFile(process, file, error);
    }
}

void SharedSettingsPath(char* out) {
    char folder[kLPathSize];
    LFile::GetUserDataFolderAppSubFolder(kSharedFolder, folder);
    LFile::_MakeFilePath(out, folder, kSharedFile, nullptr);
}

void SetValue(LXMLDocument& document, const char* section, const char* key, const char* value) {
    LXMLElement* sectionElement = document.GetElement(section);
    if (sectionElement == nullptr) {
        sectionElement = document.AddElement(section);
    }
    LXMLElement* keyElement = sectionElement->GetElement(key);
    if (keyElement == nullptr) {
        keyElement = sectionElement->AddElement(key);
    }
    keyElement->GetAttributes().SetString(kValue, value != nullptr ? value : "");
}

// The value, or null when the section, the key or the attribute is missing.
const char* FindValue(const LXMLDocument& document, const char* section, const char* key) {
    const LXMLElement* sectionElement = document.GetElement(section);
    const LXMLElement* keyElement =
        sectionElement != nullptr ? sectionElement->GetElement(key) : nullptr;
    return keyElement != nullptr ? keyElement->GetAttributes().GetParm(kValue, nullptr) : nullptr;
}

bool GetValue(const LXMLDocument& document, const char* section, const char* key,
              const char* defaultValue, char* out) {
    const char* value = FindValue(document, section, key);
    CopyCut(out, value != nullptr ? value : (defaultValue != nullptr ? defaultValue : ""));
    return value != nullptr;
}

}  // namespace

bool _LXMLSettingSaveDocument(const char* file, const LXMLDocument& document) {
    // The lock is taken before the file is emptied, so that a file held by another writer
    // is never truncated under it.
    int fd = open(file, O_RDWR | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0666);
    if (fd < 0) {
        return false;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0 || ftruncate(fd, 0) != 0) {
        close(fd);
        return false;
    }
    LStringLongTemplate<char> text;
    for (const LXMLElement* child = document.GetFirstChild(); child != nullptr;
         child = child->GetNext()) {
        if (!child->IsTextNode()) {
            child->SaveToBuffer(text, 0);
        }
    }
    bool ok = true;
    if (text.GetLength() > 0) {
        ssize_t written = write(fd, text.GetText(), text.GetLength());
        ok = written == static_cast<ssize_t>(text.GetLength());
    }
    close(fd);
    return ok;
}

bool LSharedSettingsLoad(LXMLDocument& document) {
    char path[kLPathSize];
    SharedSettingsPath(path);
    LoadDocument(path, document);
    return true;
}

bool LSharedSettingsSave(const LXMLDocument& document) {
    char path[kLPathSize];
    SharedSettingsPath(path);
    return _LXMLSettingSaveDocument(path, document);
}

bool LSharedSettingSetString(const char* section, const char* key, const char* value) {
    LXMLDocument document;
    LSharedSettingsLoad(document);
    SetValue(document, section, key, value);
    return LSharedSettingsSave(document);
}

bool _LSharedSettingGetString(const char* section, const char* key, const char* defaultValue,
                              char* out) {
    LXMLDocument document;
    LSharedSettingsLoad(document);
    return GetValue(document, section, key, defaultValue, out);
}

bool _LSharedSettingGetString(const char* section, const char* key, const char* defaultValue,
                              LStringLongTemplate<char>& out) {
    char buffer[kLSettingTextSize];
    bool found = _LSharedSettingGetString(section, key, defaultValue, buffer);
    out = buffer;
    return found;
}

bool LSharedSettingSetPassword(const char* section, const char* key, const char* text) {
    return _LSettingSetPasswordThrough(key, text, [&](const char* name, const char* cipher) {
        return LSharedSettingSetString(section, name, cipher);
    });
}

bool LSharedSettingGetPassword(const char* section, const char* key, const char*, char* out) {
    return _LSettingGetPasswordThrough(key, out, [&](const char* name, char* value) {
        return _LSharedSettingGetString(section, name, "", value);
    });
}

bool LSharedSettingDeleteItem(const char* section, const char* key) {
    LXMLDocument document;
    LSharedSettingsLoad(document);
    LXMLElement* sectionElement = document.GetElement(section);
    if (sectionElement == nullptr || sectionElement->GetElement(key) == nullptr) {
        return false;
    }
    sectionElement->DeleteElement(key);
    return LSharedSettingsSave(document);
}

bool LSharedSettingDeleteSection(const char* section) {
    LXMLDocument document;
    LSharedSettingsLoad(document);
    if (document.GetElement(section) == nullptr) {
        return false;
    }
    document.DeleteElement(section);
    return LSharedSettingsSave(document);
}

bool LSharedSettingTestKeyExists(const char* section) {
    LXMLDocument document;
    LSharedSettingsLoad(document);
    return document.GetElement(section) != nullptr;
}

bool LSharedSettingTestExists(const char* section, const char* key) {
    LXMLDocument document;
    LSharedSettingsLoad(document);
    const LXMLElement* sectionElement = document.GetElement(section);
    return sectionElement != nullptr && sectionElement->GetElement(key) != nullptr;
}

bool LXMLSettingSetString(const char* file, const char* section, const char* key,
                          const char* value) {
    LXMLDocument document;
    LoadDocument(file, document);
    SetValue(document, section, key, value);
    return _LXMLSettingSaveDocument(file, document);
}

bool LXMLSettingGetString(const char* file, const char* section, const char* key,
                          const char* defaultValue, char* out) {
    LXMLDocument document;
    LoadDocument(file, document);
    return GetValue(document, section, key, defaultValue, out);
}

void _LUserHiddenSettingGetPath(char* out) {
    char data[kLPathSize];
    char folder[kLPathSize];
    LFile::GetUserDataFolder(data);
    LFile::_MakeFilePath(folder, data, kHiddenFolder, nullptr);
    mkdir(folder, 0700);
    LFile::_MakeFilePath(out, folder, kHiddenFile, nullptr);
}

bool LUserHiddenSettingSetString(const char* section, const char* key, const char* value) {
    char path[kLPathSize];
    _LUserHiddenSettingGetPath(path);
    return LXMLSettingSetString(path, section, key, value);
}

bool _LUserHiddenSettingGetString(const char* section, const char* key, const char* defaultValue,
                                  char* out) {
    char path[kLPathSize];
    _LUserHiddenSettingGetPath(path);
    return LXMLSettingGetString(path, section, key, defaultValue, out);
}

bool LUserHiddenSettingSetPassword(const char* section, const char* key, const char* text) {
    return _LSettingSetPasswordThrough(key, text, [&](const char* name, const char* cipher) {
        return LUserHiddenSettingSetString(section, name, cipher);
    });
}

bool LUserHiddenSettingGetPassword(const char* section, const char* key, const char*, char* out) {
    return _LSettingGetPasswordThrough(key, out, [&](const char* name, char* value) {
        return _LUserHiddenSettingGetString(section, name, "", value);
    });
}
