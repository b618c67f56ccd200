// Whole-file text: loading raw bytes, UTF-16 with or without a byte-order mark, or whatever
// the mark says; saving UTF-8 (tagged with the text-encoding attribute) or UTF-16 with a mark.
//
// Loaders take a shared advisory lock (5000 ms) and savers an exclusive one (500 ms), both
// best effort. A loaded text is always terminated; UTF-16 is read in the machine's order
// (little-endian) unless a big-endian mark says otherwise, an odd last byte is dropped, and
// conversion ends at the first zero unit.
#pragma once

#include "text/lstring.h"

// The bytes as they are, terminated. False only when the file cannot be opened.
bool LLoadText(char const* path, LStringLongTemplate<char>& text);
// The file as UTF-16 units from its first byte, converted to UTF-8; no mark is looked for.
bool LLoadTextAsUTF16(char const* path, LStringLongTemplate<char>& text);
// As LLoadTextAsUTF16, but a mark FE FF (big-endian) or FF FE (little-endian) is honoured
// and skipped.
bool LLoadTextUnicode(char const* path, LStringLongTemplate<char>& text);
// Raw bytes, then by the mark: FF FE or FE FF is UTF-16, EF BB BF is UTF-8 (mark dropped),
// anything else is taken as UTF-8 as it stands. False only when the file cannot be opened.
bool LLoadTextAutoChar(char const* path, LStringLongTemplate<char>& text);

// Replace (or append to) the file's content with the text's bytes, no terminator and no mark,
// then tag the file as UTF-8. The result is that of the tagging (0 done, -1 failed), which is
// attempted even when the file could not be written.
int LSaveText(char const* path, char const* text);
int LSaveText(char const* path, LStringLongTemplate<char> const& text);
int LSaveAppendText(char const* path, char const* text);
int LSaveAppendText(char const* path, LStringLongTemplate<char> const& text);
// Replaces the content with the mark FF FE and the text as little-endian UTF-16. No tag.
void LSaveTextAsUnicodeBOM(char const* path, LStringLongTemplate<char> const& text);
