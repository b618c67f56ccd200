// Fuzzes the crash-report header reader with arbitrary file contents. A report that counts
// must hold the five header lines it was accepted for; a dated one always has a time.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "debug/lmachine.h"
#include "file_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzFile file(data, size);
    std::string const bytes(reinterpret_cast<char const*>(data), size);
    long time = 0;
    if (_LReadCrashReport(file.path(), "KavelPL.app", "KavelPL.app/Contents/MacOS/KavelPLVadHelper",
                          time)) {
        for (char const* label : {"Process:", "Path:", "Identifier:", "Version:", "Date/Time:",
                                  "KavelPL.app/Contents/MacOS/KavelPLVadHelper"}) {
            if (bytes.find(label) == std::string::npos) {
                abort();
            }
        }
    }
    return 0;
}
