// Questions about the operating system, the current user and other processes, and the
// switch of the process's user.
//
// The system version is read once and cached for the life of the process. Process look-ups
// go by command name, which the system keeps cut to 15 characters, and compare ignoring
// case. Every failure is reported by result only.
#pragma once

#include <sys/types.h>

#include <string_view>
#include <vector>

// The common start-up of a program: registers the calling (main) thread in the debug thread
// registry under the name "MAIN".
void LUnixAppInitCommon();

// The system version as major, minor and patch numbers; cached after the first call.
void LGetOSVersion(unsigned char& major, unsigned char& minor, unsigned char& patch);
void LGetOSVersion(unsigned char& major, unsigned char& minor);

// True when the real user id is 0, or when "USER" is exactly "root".
bool LIsUserRoot();
// True for root, or when one of the process's groups is an administrator group.
bool LIsUserAdministrator();
bool LIsUserRunningAsAdministrator();
// setuid to the user named by "LOGNAME", else "USER"; true on success.
bool LSwitchToUser();
// setuid(0); true on success.
bool LSwitchToRoot();

// One entry of the system's process table.
struct LBSDProcessInfo {
    pid_t pid;
    char szCommand[17];  // the command name, at most 16 characters
};
// Every process the system lists; false (and an empty list) when the table can't be read.
bool LGetBSDProcessList(std::vector<LBSDProcessInfo>& list);
// The process id of the first process whose command name equals name ignoring case; -1 if
// none. (It answers a process id despite its name; callers rely on that.)
pid_t LGetBSDProcessUid(char const* name);
// LGetBSDProcessUid, remembered once it has found a process; a failed search is repeated on
// the next call. The cache is written under the system-wide lock "UID".
pid_t LGetProcessUid(char const* name);

// Hands a web address to the user's default browser; false when it could not be handed on.
// The address is passed as one argument, never through a shell.
bool LOpenWebPage(char const* address);

// ---- Parts shared with the platform half, exposed for their tests --------------------------

// Splits a dotted version: each number is atoi of its piece (cut to 259 characters); a
// missing piece is 0. "12" gives 12.0.0, "11.2" gives 11.2.0.
void _LSplitOSVersion(char const* text, int& major, int& minor, int& patch);
// The value of key in an os-release text (KEY=value lines, value optionally quoted), cut to
// 259 characters; false when the key is absent.
bool _LOSReleaseValue(std::string_view content, std::string_view key, char* out);
// True for the names of the groups whose members administer the machine.
bool _LIsAdministratorGroupName(char const* name);

// Platform half: the version text of the running system into out (260 bytes); false when
// none can be read.
bool _LReadSystemVersionText(char* out);
