// SPDX-License-Identifier: MIT
// Files and paths: whether a path names a file or a folder, and names resolved against a base.
#include <string.h>
#include <sys/stat.h>

#include "vokt/internal/assert.h"
#include "vokt/internal/errors.h"
#include "vokt/internal/text.h"

namespace {

using vokt::Scoped;
using vokt::Steady;

constexpr char kModule[] = "util";  // the String module's name in its reports

}  // namespace

extern "C" {

int32_t File_IsDirectory(const char *path) {
    struct stat info;
    return path && stat(path, &info) == 0 && S_ISDIR(info.st_mode) ? 1 : 0;
}

int32_t File_Exists(const char *path) {
    struct stat info;
    return path && stat(path, &info) == 0 ? 1 : 0;
}

int32_t String_ResolvePath(String *s, const char *name, const char *base) {
    VOKT_ASSERT_OR_RETURN(name != NULL, -1);
    if (name[0] == '/') return String_Set(s, name);
    VOKT_ASSERT_OR_RETURN(base != NULL, -1);
    // s is overwritten first; a name or base inside it is read from a copy.
    Scoped<String> nameCopy, baseCopy;
    name = Steady(s, name, nameCopy);
    base = name ? Steady(s, base, baseCopy) : nullptr;
    if (!base) return -2;
    VOKT_TRY(String_Set(s, base));
    if (File_Exists(base) && !File_IsDirectory(base)) {
        const char *slash = strrchr(s->string, '/');
        String_Truncate(s, slash ? static_cast<int32_t>(slash - s->string) + 1 : 0);
    } else if (!String_EndsWith(s, "/")) {
        VOKT_TRY(String_AppendChar(s, '/'));
    }
    VOKT_TRY(String_AppendChars(s, name));
    return 0;
}

}  // extern "C"
