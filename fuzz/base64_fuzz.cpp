// Fuzzes the Base64 decoder and the setting decipherer with outside text (stored settings
// may hold anything). Checks that hold for every input: the decoder never yields more than
// its stated capacity, re-encoding what it yielded and decoding that again gives the same
// bytes for every flag combination, and deciphering in place never lengthens the text.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "settings/lbase64.h"
#include "settings/lblowfish.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* text = reinterpret_cast<const char*>(data);
    LSizedArray<unsigned char> decoded;
    LBase64Decode(text, size, decoded);  // stops at a NUL or the end of the input
    if (decoded.GetSize() > (size + 3) / 4 * 3) {
        std::abort();
    }
    const std::vector<unsigned char> bytes(decoded.GetData(),
                                           decoded.GetData() + decoded.GetSize());

    for (unsigned flags = 0; flags < 4; ++flags) {
        LStringLongTemplate<char> encoded;
        LBase64Encode(bytes.data(), bytes.size(), encoded, flags);
        if (static_cast<int>(encoded.GetLength()) >
            Base64EncodeGetRequiredLength(static_cast<int>(bytes.size()), flags)) {
            std::abort();
        }
        LSizedArray<unsigned char> back;
        LBase64Decode(encoded.GetText(), encoded.GetLength(), back);
        if (back.GetSize() != bytes.size() ||
            (!bytes.empty() && std::memcmp(back.GetData(), bytes.data(), bytes.size()) != 0)) {
            std::abort();
        }
    }

    // Deciphering works on terminated text: an exact-size heap copy up to the first NUL.
    const std::string terminated(text, size > 0 ? strnlen(text, size) : 0);
    std::vector<char> inPlace(terminated.begin(), terminated.end());
    inPlace.push_back(0);
    LSettingDecrypt(inPlace.data());
    if (std::strlen(inPlace.data()) > terminated.size()) {
        std::abort();
    }
    LStringLongTemplate<char> asString(terminated.c_str());
    LSettingDecrypt(asString);
    LBlowFish cipher;
    cipher.SetKey(terminated.c_str());
    char out[260];
    cipher.StringDecodeBase64(out, terminated.c_str());
    if (std::strlen(out) > 259) {
        std::abort();
    }
    return 0;
}
