// The checks an offered driver bundle passes before any command runs for it.
//
// The installer's commands put paths into shell command lines as they stand, without
// quoting, run them as root, and the service accepts messages from other users. So an
// offered path is used only when
// - it is an absolute path of an existing folder spelt with nothing but
//   "A-Z a-z 0-9 / . _ + -": one shell word with no expansion, and every real bundle path
//   keeps its command text unchanged;
// - it is its own real path (no symbolic link, "." or ".." anywhere in it), so the folder
//   checked is the folder copied;
// - the bundle holds only folders and regular files (no symbolic link, which the copy
//   would keep and root would then follow into a folder the offering user controls; no
//   FIFO, socket or device), at most kLVADHelperMaxBundleEntries of them, whose sizes,
//   every hard link counted (the copy makes each one a file of its own), add up to at most
//   kLVADHelperMaxBundleBytes.
// A refused offer runs nothing.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr uint64_t kLVADHelperMaxBundleBytes = uint64_t{256} << 20;
inline constexpr size_t kLVADHelperMaxBundleEntries = 65536;

// True when path may be put into the installer's commands.
bool LVADHelperIsOfferedPathAcceptable(char const* path);

// True when the folder at path (not itself a symbolic link) holds nothing but folders and
// regular files within the limits above.
bool LVADHelperIsBundleTreeSafe(char const* path);
