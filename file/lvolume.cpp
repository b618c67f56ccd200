// What kind of volume a path is on, and byte counts for display.
//
// The volume tests are decisions over the volume resource values (LGetNSURLResourceValue):
// a value that cannot be read always makes a test answer false, so an unreachable path is
// neither network nor external nor removable (and, by negation, "on a local drive").
#include <strings.h>

#include <cstring>

#include "file/lfile.h"
#include "file/lfile_platform.h"
#include "file/lknown_folders.h"
#include "text/lstring.h"

bool LFile::IsNetworkPath(char const* path) {
    bool local = false;
    return LGetNSURLResourceValue(path, LURLResourceKey::VolumeIsLocal, &local) && !local;
}

bool LFile::IsOnLocalDrive(char const* path) {
    return !IsNetworkPath(path);
}

bool LFile::IsOnExternalDrive(char const* path) {
    bool internal = false;
    return LGetNSURLResourceValue(path, LURLResourceKey::VolumeIsInternal, &internal) && !internal;
}

bool LFile::IsOnRemovableMedia(char const* path) {
    bool removable = false;
    if (!LGetNSURLResourceValue(path, LURLResourceKey::VolumeIsRemovable, &removable)) {
        return false;
    }
    if (removable) {
        return true;
    }
    bool internal = false;
    return LGetNSURLResourceValue(path, LURLResourceKey::VolumeIsInternal, &internal) && !internal;
}

int LFile::_GetVolumeFileSizeLimitFromTypeName(char const* typeName) {
    if (typeName == nullptr) {
        return 2;
    }
    // Whole names in any case: "FAT32X" is just another unknown type.
    if (strcasecmp(typeName, "FAT32") == 0 || strcasecmp(typeName, "FAT16B") == 0) {
        return 1;
    }
    if (strcasecmp(typeName, "FAT16") == 0 || strcasecmp(typeName, "FAT12") == 0 ||
        strcasecmp(typeName, "FAT") == 0) {
        return 0;
    }
    return 2;  // "NTFS", "exFAT" and everything else: no limit known
}

int LFile::GetVolumeFileSizeLimit(char const* path) {
    char typeName[kLPathSize];
    if (path == nullptr || !_LGetFileSystemTypeName(path, typeName, sizeof(typeName))) {
        return 2;
    }
    return _GetVolumeFileSizeLimitFromTypeName(typeName);
}

void LFile::GetSizeFormattedBytes(unsigned long long bytes, char* dst) {
    struct Unit {
        unsigned int shift;
        char const* format;
    };
    static constexpr Unit kUnits[] = {
        {40, "%llu TB"}, {30, "%llu GB"}, {20, "%llu MB"}, {10, "%llu KB"}, {0, "%llu Bytes"},
    };
    for (Unit const& u : kUnits) {
        if (bytes >= (1ULL << u.shift)) {
            tplsnprintf(dst, kLPathSize, u.format, bytes >> u.shift);
            return;
        }
    }
    tplsnprintf(dst, kLPathSize, "%llu Bytes", bytes);  // zero
}
