// Driver bundle information dictionaries and the versions in them come from whoever offers
// a driver: the bytes are read as an Info.plist, and the version found is ordered against
// a version taken from the rest of the input, both ways round.
#include "helper/bundle_version.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    std::string_view bytes(reinterpret_cast<char const*>(data), size);
    char version[kLVADHelperTextSize];
    LVADHelperVersionFromInfoPlist(bytes, version);
    if (strnlen(version, sizeof version) >= sizeof version)
        std::abort();

    // The first half against the second as versions: ordering must be antisymmetric.
    std::string_view a = bytes.substr(0, size / 2), b = bytes.substr(size / 2);
    int ab = LVADHelperCompareVersions(a, b), ba = LVADHelperCompareVersions(b, a);
    if ((ab > 0) != (ba < 0) || (ab == 0) != (ba == 0))
        std::abort();
    if (LVADHelperCompareVersions(a, a) != 0 || LVADHelperCompareVersions(version, version) != 0)
        std::abort();
    return 0;
}
