// Offered-path check: spelling first (pure), then the folder test on the file system.
#include "helper/offered_path.h"

#include <sys/stat.h>

namespace {

bool IsShellInertCharacter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '/' ||
           c == '.' || c == '_' || c == '+' || c == '-';
}

}  // namespace

bool LVADHelperIsOfferedPathAcceptable(char const* path) {
    if (!path || path[0] != '/')
        return false;
    for (char const* p = path; *p; ++p) {
        if (!IsShellInertCharacter(*p))
            return false;
    }
    struct stat st;
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}
