// Bundle version reading through libplist and the digit-run ordering of versions.
#include "helper/bundle_version.h"

#include <dlfcn.h>
#include <plist/plist.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "platform/lsmall_file.h"

namespace {

// Information dictionaries are a few kilobytes; anything far larger is not a bundle's.
constexpr size_t kMaxInfoPlistBytes = 1 << 20;

constexpr char kInfoPlistInBundle[] = "/Contents/Info.plist";
constexpr char kVersionKey[] = "CFBundleVersion";
constexpr char kNoVersion[] = "0";

void SetVersion(char* version, std::string_view text) {
    size_t n = text.size() < kLVADHelperTextSize - 1 ? text.size() : kLVADHelperTextSize - 1;
    std::memcpy(version, text.data(), n);
    version[n] = '\0';
}

// libplist is opened on the first version read rather than linked: only an offered driver
// needs it, and every on-demand start of the service would otherwise map and relocate it and
// libm before the first reply. The library stays open for the life of the process.
struct PlistLibrary {
    decltype(&plist_from_memory) fromMemory = nullptr;
    decltype(&plist_free) free = nullptr;
    decltype(&plist_get_node_type) nodeType = nullptr;
    decltype(&plist_dict_get_item) dictItem = nullptr;
    decltype(&plist_get_string_ptr) stringPtr = nullptr;

    bool IsLoaded() const { return fromMemory && free && nodeType && dictItem && stringPtr; }
};

template <typename Function>
void Resolve(void* handle, Function& function, char const* name) {
    function = reinterpret_cast<Function>(dlsym(handle, name));
}

PlistLibrary const& Plist() {
    static PlistLibrary const library = [] {
        PlistLibrary l;
        if (void* handle = dlopen("libplist-2.0.so.3", RTLD_NOW | RTLD_LOCAL)) {
            Resolve(handle, l.fromMemory, "plist_from_memory");
            Resolve(handle, l.free, "plist_free");
            Resolve(handle, l.nodeType, "plist_get_node_type");
            Resolve(handle, l.dictItem, "plist_dict_get_item");
            Resolve(handle, l.stringPtr, "plist_get_string_ptr");
        }
        return l;
    }();
    return library;
}

struct PlistDeleter {
    void operator()(plist_t node) const { Plist().free(node); }
};
using PlistPtr = std::unique_ptr<std::remove_pointer_t<plist_t>, PlistDeleter>;

bool IsDigit(unsigned char c) {
    return c >= '0' && c <= '9';
}

}  // namespace

bool LVADHelperVersionFromInfoPlist(std::string_view plistBytes, char* version) {
    SetVersion(version, kNoVersion);
    PlistLibrary const& plist = Plist();
    if (plistBytes.empty() || plistBytes.size() > kMaxInfoPlistBytes || !plist.IsLoaded())
        return false;
    plist_t parsed = nullptr;
    plist.fromMemory(plistBytes.data(), static_cast<uint32_t>(plistBytes.size()), &parsed);
    PlistPtr root(parsed);
    if (!root || plist.nodeType(root.get()) != PLIST_DICT)
        return false;
    plist_t item = plist.dictItem(root.get(), kVersionKey);
    if (!item || plist.nodeType(item) != PLIST_STRING)
        return false;
    uint64_t length = 0;
    char const* text = plist.stringPtr(item, &length);
    if (!text)
        return false;
    // The version is text: it ends at its first NUL even when the list stores more.
    SetVersion(version, std::string_view(text, strnlen(text, length)));
    return true;
}

bool LVADHelperReadBundleVersion(char const* bundlePath, char* version) {
    SetVersion(version, kNoVersion);
    if (!bundlePath || !*bundlePath)
        return false;
    std::string bytes;
    // Opened without following a link and without waiting on a FIFO: the offering user
    // controls this file, and the installer reads it as root.
    if (!_LReadWholeFile((std::string(bundlePath) + kInfoPlistInBundle).c_str(), bytes,
                         kMaxInfoPlistBytes, false))
        return false;
    return LVADHelperVersionFromInfoPlist(bytes, version);
}

int LVADHelperCompareVersions(std::string_view a, std::string_view b) {
    size_t i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        unsigned char ca = a[i], cb = b[j];
        if (IsDigit(ca) && IsDigit(cb)) {
            size_t ea = i, eb = j;
            while (ea < a.size() && IsDigit(a[ea]))
                ++ea;
            while (eb < b.size() && IsDigit(b[eb]))
                ++eb;
            // Compare the runs by value without converting: strip leading zeros, then the
            // longer run is the larger number, and equal lengths compare digit by digit.
            size_t za = i, zb = j;
            while (za + 1 < ea && a[za] == '0')
                ++za;
            while (zb + 1 < eb && b[zb] == '0')
                ++zb;
            if (ea - za != eb - zb)
                return ea - za < eb - zb ? -1 : 1;
            int c = a.substr(za, ea - za).compare(b.substr(zb, eb - zb));
            if (c != 0)
                return c < 0 ? -1 : 1;
            i = ea;
            j = eb;
            continue;
        }
        if (ca != cb)
            return ca < cb ? -1 : 1;
        ++i;
        ++j;
    }
    if (i < a.size())
        return 1;
    if (j < b.size())
        return -1;
    return 0;
}
