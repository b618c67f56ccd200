// The check an offered driver path passes before any command text is built from it.
//
// The installer's commands put paths into shell command lines as they stand, without
// quoting, and the service accepts messages from any local user. So an offered path is used
// only when it is an absolute path of an existing folder spelt with nothing but
// "A-Z a-z 0-9 / . _ + -": such a path is one shell word with no expansion, and every real
// bundle path keeps its command text unchanged. A path that fails is treated like a bundle
// whose version cannot be read: it is never installed.
#pragma once

// True when path may be put into the installer's commands.
bool LVADHelperIsOfferedPathAcceptable(char const* path);
