// Fuzzes the formatting engine's reading of format texts. The input's first byte picks the size
// of a fixed output buffer (allocated at exactly that size, so any write past it is caught);
// the rest is the format. Every call gets the same argument list: eight doubles and enough
// pointers to valid texts that any conversion sequence the format can hold reads only these
// arguments (each conversion takes at most one 16-byte slot, and formats with more than 32
// conversions are skipped). Checks: the fixed buffer is terminated within its size and
// holds exactly the first size - 1 characters of what the same format gives in a growing string.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "text/lstring.h"

namespace {

constexpr const char* kText = "text";

bool Acceptable(const std::string& format) {
    int specs = 0;
    int digits = 0;
    for (char c : format) {
        specs += c == '%';
        // Long digit runs ask the C library for huge widths: slow, and not what is tested.
        digits = (c >= '0' && c <= '9') ? digits + 1 : 0;
        if (digits > 4 || specs > 32) {
            return false;
        }
    }
    return true;
}

#define P8 kText, kText, kText, kText, kText, kText, kText, kText
#define ARGS \
    1.5, -2.25, 3e300, 0.0, 1e-310, -0.5, 42.0, 7.75, P8, P8, P8, P8, P8, P8, P8, P8, P8, P8
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    const unsigned long bufferSize = data[0];
    const std::string format(reinterpret_cast<const char*>(data + 1), size - 1);
    if (!Acceptable(format)) {
        return 0;
    }

    LStringLongTemplate<char> full;
    errno = 0;
    const unsigned long fullLength = sprintf(full, format.c_str(), ARGS);
    if (fullLength != full.GetLength() || full.GetText()[fullLength] != 0 ||
        fullLength >= full.GetCapacity()) {
        std::abort();
    }

    char* buffer = new char[bufferSize > 0 ? bufferSize : 1];
    errno = 0;
    const unsigned long n = tplsnprintf(buffer, bufferSize, format.c_str(), ARGS);
    if (bufferSize > 0) {
        const unsigned long expected = fullLength < bufferSize - 1 ? fullLength : bufferSize - 1;
        if (n != expected || buffer[n] != 0 || std::memcmp(buffer, full.GetText(), n) != 0) {
            std::abort();
        }
    } else if (n != 0) {
        std::abort();
    }
    delete[] buffer;

    // The appender continues after existing text with the same output.
    LStringLongTemplate<char> appended("prefix");
    errno = 0;
    tsprintfappend(appended, format.c_str(), ARGS);
    if (appended.GetLength() != 6 + fullLength ||
        std::memcmp(appended.GetData() + 6, full.GetText(), fullLength) != 0) {
        std::abort();
    }
    return 0;
}
