// Fuzzes the readers of the system's own text files (os-release, cpuinfo) and the version
// splitting. Every value must come back terminated within its 260-byte buffer.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "debug/lmachine.h"
#include "platform/los_utils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view const text(reinterpret_cast<char const*>(data), size);
    char out[261];
    out[260] = 'x';  // a guard: nothing may be written past the 260 bytes
    bool const found = _LOSReleaseValue(text, "VERSION_ID", out);
    if (strnlen(out, 260) == 260 || out[260] != 'x' || (!found && out[0] != 0)) {
        abort();
    }
    int major = 0, minor = 0, patch = 0;
    _LSplitOSVersion(std::string(text).c_str(), major, minor, patch);
    if (_LMachineCPUInfoModelName(text, out) ? strnlen(out, 260) == 260 : out[0] != 0) {
        abort();
    }
    if (out[260] != 'x') {
        abort();
    }
    return 0;
}
