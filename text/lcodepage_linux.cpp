// Windows code-page numbers to the iconv names of glibc: the Linux counterpart of the
// platform's code-page-to-encoding mapping. Only byte-oriented encodings are listed, since
// the code-page conversions read and write terminated byte texts; any number not listed is
// an unknown code page.
#include <algorithm>
#include <iterator>

#include "text/lencoding.h"

namespace {

struct CodePageName {
    unsigned int codePage;
    const char* name;
};

// Sorted by code page for the binary search.
constexpr CodePageName kCodePages[] = {
    {37, "IBM037"},
    {437, "CP437"},
    {500, "IBM500"},
    {737, "CP737"},
    {775, "CP775"},
    {850, "CP850"},
    {852, "CP852"},
    {855, "CP855"},
    {857, "CP857"},
    {860, "CP860"},
    {861, "CP861"},
    {862, "CP862"},
    {863, "CP863"},
    {864, "CP864"},
    {865, "CP865"},
    {866, "CP866"},
    {869, "CP869"},
    {874, "CP874"},
    {875, "CP875"},
    {932, "CP932"},
    {936, "GBK"},
    {949, "CP949"},
    {950, "BIG5"},
    {1026, "IBM1026"},
    {1250, "WINDOWS-1250"},
    {1251, "WINDOWS-1251"},
    {1252, "WINDOWS-1252"},
    {1253, "WINDOWS-1253"},
    {1254, "WINDOWS-1254"},
    {1255, "WINDOWS-1255"},
    {1256, "WINDOWS-1256"},
    {1257, "WINDOWS-1257"},
    {1258, "WINDOWS-1258"},
    {1361, "JOHAB"},
    {10000, "MACINTOSH"},
    {10007, "MAC-CYRILLIC"},
    {10029, "MAC-CENTRALEUROPE"},
    {10079, "MAC-IS"},
    {20127, "ASCII"},
    {20866, "KOI8-R"},
    {20932, "EUC-JP"},
    {20936, "GB2312"},
    {21866, "KOI8-U"},
    {28591, "ISO-8859-1"},
    {28592, "ISO-8859-2"},
    {28593, "ISO-8859-3"},
    {28594, "ISO-8859-4"},
    {28595, "ISO-8859-5"},
    {28596, "ISO-8859-6"},
    {28597, "ISO-8859-7"},
    {28598, "ISO-8859-8"},
    {28599, "ISO-8859-9"},
    {28603, "ISO-8859-13"},
    {28605, "ISO-8859-15"},
    {50220, "ISO-2022-JP"},
    {50222, "ISO-2022-JP"},
    {50225, "ISO-2022-KR"},
    {50227, "ISO-2022-CN"},
    {51932, "EUC-JP"},
    {51936, "EUC-CN"},
    {51949, "EUC-KR"},
    {54936, "GB18030"},
    {65000, "UTF-7"},
    {65001, "UTF-8"},
};

}  // namespace

const char* _LCodePageEncodingName(unsigned int codePage) {
    const auto* it = std::lower_bound(
        std::begin(kCodePages), std::end(kCodePages), codePage,
        [](const CodePageName& entry, unsigned int value) { return entry.codePage < value; });
    if (it == std::end(kCodePages) || it->codePage != codePage)
        return nullptr;
    return it->name;
}
