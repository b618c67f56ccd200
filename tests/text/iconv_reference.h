// Test-side reference conversions through glibc iconv, shared by the converter and code-page
// tests. The shift state is flushed after a whole input, so stateful encodings end closed.
#pragma once

#include <iconv.h>

#include <string>

struct IconvResult {
    std::string bytes;  // what came out before the end or the first error
    bool complete;      // false when iconv stopped early or does not know an encoding
};

inline IconvResult IconvRun(const char* to, const char* from, const void* data, size_t size) {
    iconv_t cd = iconv_open(to, from);
    if (cd == reinterpret_cast<iconv_t>(-1)) {
        return {"", false};
    }
    std::string out(8 * size + 16, '\0');
    char* in = const_cast<char*>(static_cast<const char*>(data));
    size_t inLeft = size;
    char* outPos = out.data();
    size_t outLeft = out.size();
    size_t rc = iconv(cd, &in, &inLeft, &outPos, &outLeft);
    if (rc != static_cast<size_t>(-1)) {
        rc = iconv(cd, nullptr, nullptr, &outPos, &outLeft);
    }
    iconv_close(cd);
    out.resize(out.size() - outLeft);
    return {out, rc != static_cast<size_t>(-1) && inLeft == 0};
}

// The whole text converted, or "" when any part fails.
inline std::string Iconv(const char* to, const char* from, const std::string& in) {
    IconvResult r = IconvRun(to, from, in.data(), in.size());
    return r.complete ? r.bytes : "";
}
