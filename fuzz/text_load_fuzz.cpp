// Fuzzes the whole-file text loaders with arbitrary file contents. Each result must be a
// terminated text of its stated length; the marked UTF-16 forms and the unmarked UTF-16
// loader must give well-formed UTF-8 (checked by converting back), and the automatic loader
// must give a text without a mark exactly as the file holds it.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "file/lfile_text.h"
#include "file_input.h"
#include "text/lunicode.h"

namespace {

void Check(bool ok) {
    if (!ok) {
        abort();
    }
}

void CheckTerminated(LStringLongTemplate<char> const& text) {
    Check(text.GetText()[text.GetLength()] == 0);
}

void CheckWellFormed(LStringLongTemplate<char> const& text) {
    CheckTerminated(text);
    Check(strlen(text.GetText()) == text.GetLength());
    LStringLongTemplate<char16_t> back;
    Check(LCopyUnicodeFromUTF8(back, text.GetText()) != kLConversionSourceIllegal);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzFile file(data, size);
    std::string const bytes(reinterpret_cast<char const*>(data), size);

    LStringLongTemplate<char> text;
    Check(LLoadTextAutoChar(file.path(), text));
    CheckTerminated(text);
    bool const utf16 =
        size >= 2 && ((data[0] == 0xFF && data[1] == 0xFE) || (data[0] == 0xFE && data[1] == 0xFF));
    bool const utf8 = !utf16 && size >= 3 && data[0] == 0xEF && data[1] == 0xBB && data[2] == 0xBF;
    if (utf16) {
        CheckWellFormed(text);
    } else {
        std::string const expected = utf8 ? bytes.substr(3) : bytes;
        Check(std::string(text.GetText(), text.GetLength()) == expected);
    }

    Check(LLoadTextUnicode(file.path(), text));
    CheckWellFormed(text);
    Check(LLoadTextAsUTF16(file.path(), text));
    CheckWellFormed(text);
    Check(LLoadText(file.path(), text));
    Check(std::string(text.GetText(), text.GetLength()) == bytes);
    return 0;
}
