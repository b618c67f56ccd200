// Fuzzes the sound-time and decibel readers with arbitrary text. Whatever value the reader
// builds must be written and read back unchanged by the full form, and the decibel reader
// must stay within -127 to 127.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "text/lsoundtime.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    LSoundTime t;
    t.SetText(text.c_str());
    LSoundTime::IsValid(text.c_str(), true);
    LSoundTime::IsValid(text.c_str(), false);

    char written[260];
    t._GetText(written);
    LSoundTime back;
    back.SetText(written);
    if (back.GetTime() != t.GetTime())
        std::abort();
    if (!LSoundTime::IsValid(written, true))
        std::abort();
    t._GetTextMMSSFF(written);
    t._GetTextHMMSSF(written);

    LdB<signed char> db;
    db.SetText(text.c_str());
    if (db.GetValue() < -127)
        std::abort();
    return 0;
}
