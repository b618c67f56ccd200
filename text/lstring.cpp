// Out-of-line parts of the string types: the explicit instantiations for the three character
// types the library uses (char for UTF-8 text, char16_t for UTF-16, wchar_t for UTF-32), so
// that every user shares one copy of their code.
#include "text/lstring.h"

#include <cstring>

template class LStringLongTemplate<char>;
template class LStringLongTemplate<char16_t>;
template class LStringLongTemplate<wchar_t>;

unsigned long tstrlen(const char* text) {
    return text != nullptr ? static_cast<unsigned long>(std::strlen(text)) : 0;
}
