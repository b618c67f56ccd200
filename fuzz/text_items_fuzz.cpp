// Fuzzes the readers of outside text: CSV items, text fields, query-item removal, token
// readers, the command-line splitter and the number parsers. The input's first byte picks the
// output size for the sized readers; output buffers are heap arrays of exactly the size the
// reader is told (or the 260 characters the fixed readers assume), so overruns are caught.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "text/lstring.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    const unsigned long outSize = data[0];
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    const char* t = text.c_str();
    const unsigned long length = std::strlen(t);

    std::vector<char> out(outSize > 0 ? outSize : 1);
    unsigned long position = 0;
    while (position < length) {
        const unsigned long before = position;
        GetCSVListItem(t, position, out.data(), outSize);
        if (outSize > 0 && std::strlen(out.data()) >= outSize) {
            std::abort();
        }
        if (position > length) {
            std::abort();
        }
        if (position == before) {
            ++position;  // stopped on a line end: step over it as a caller would
        }
    }

    LStringFindTextField(t, "<", ">", out.data(), outSize);
    LStringFindTextField(t, "", "", out.data(), outSize);

    std::vector<char> query(text.begin(), text.end());
    query.push_back(0);
    LRemoveHTTPItem("a", query.data());
    LRemoveHTTPItem(t, query.data());

    std::vector<char> token(260);
    for (unsigned long i = 0; i < length;) {
        const unsigned long step = LParseGetToWhiteSpaceAndSkipIt(t + i, token.data());
        if (std::strlen(token.data()) > 259 || i + step > length) {
            std::abort();
        }
        i += step > 0 ? step : 1;
    }
    LParseGetToCharacters(t, ",;=", token.data());
    LStringLongTemplate<char> line;
    if (LParseGetToEndOfLine(t, line) != line.GetLength()) {
        std::abort();
    }

    LCommandLineArgumentStringExpander expander(t);
    unsigned long count = 0;
    while (expander.NextArgument()) {
        ++count;
        if (count > length) {
            std::abort();  // every argument consumes at least one character
        }
    }
    const unsigned long counted = LCommandLineArgumentStringExpander::GetArgumentCount(t);
    if (counted != (count > 0 ? count - 1 : 0)) {
        std::abort();
    }

    (void)ttoi64template<char>(t);
    (void)atoh(t);
    unsigned long value = 0;
    (void)ttosize_t(t, value);
    (void)stristr(t, "aB");
    return 0;
}
