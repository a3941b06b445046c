// SPDX-License-Identifier: MIT
// Frames as text. Symbols come from the dynamic linker; addr2line, when installed, adds the
// file and line (and names functions the dynamic symbol table leaves out).
#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "vokt/checks/internal/common.h"

namespace vokt {

namespace {

bool g_hasAddr2line = false;

// Copies text into room bytes, cut where it does not fit: a long name is better cut than lost.
void CopyCut(char *out, size_t room, const char *text) {
    const size_t n = strnlen(text, room - 1);
    memcpy(out, text, n);
    out[n] = '\0';
}

void FindAddr2line() {
    const char *path = getenv("PATH");  // NOLINT(concurrency-mt-unsafe): read once, when the checks are first switched on
    if (!path) return;
    char candidate[4096];
    for (const char *p = path; *p;) {
        const char *colon = strchr(p, ':');
        const size_t length = colon ? static_cast<size_t>(colon - p) : strlen(p);
        snprintf(candidate, sizeof candidate, "%.*s/addr2line", static_cast<int>(length), p);
        if (length > 0 && access(candidate, X_OK) == 0) {
            g_hasAddr2line = true;
            return;
        }
        p += length + (colon ? 1 : 0);
    }
}

// Runs addr2line on one address; function and "file:line" into the two buffers.
bool AskAddr2line(const char *module, uintptr_t address, char *function, size_t functionRoom, char *place,
                  size_t placeRoom) {
    int fds[2];
    if (!g_hasAddr2line || pipe2(fds, O_CLOEXEC) != 0) return false;
    char hex[32];
    snprintf(hex, sizeof hex, "0x%lx", static_cast<unsigned long>(address));
    char *argv[] = {const_cast<char *>("addr2line"), const_cast<char *>("-f"), const_cast<char *>("-C"),
                    const_cast<char *>("-e"), const_cast<char *>(module), hex, nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    // posix_spawn runs no fork handlers: the log's, which take the runtime's locks, stay out.
    const int rc = posix_spawnp(&pid, "addr2line", &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    char text[1024];
    size_t used = 0;
    if (rc == 0) {
        ssize_t n;
        while (used < sizeof text - 1 && (n = read(fds[0], text + used, sizeof text - 1 - used)) > 0)
            used += static_cast<size_t>(n);
        waitpid(pid, nullptr, 0);
    }
    close(fds[0]);
    text[used] = '\0';
    char *second = strchr(text, '\n');
    if (rc != 0 || !second) return false;
    *second++ = '\0';
    second[strcspn(second, " \n")] = '\0';
    CopyCut(function, functionRoom, text);
    CopyCut(place, placeRoom, second);
    return true;
}

void FormatFrameAnew(void *pc, char *out, size_t room) {
    Dl_info info{};
    void *entry = nullptr;
    if (!dladdr1(pc, &info, &entry, RTLD_DL_SYMENT) || !info.dli_fname) {
        snprintf(out, room, "%p", pc);
        return;
    }
    char path[4096];
    const char *module = info.dli_fname;
    if (module[0] == '\0' || strcmp(module, program_invocation_name) == 0) {  // the program itself
        const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
        path[n > 0 ? n : 0] = '\0';
        module = path;
    }
    const char *base = strrchr(module, '/') ? strrchr(module, '/') + 1 : module;
    const auto at = reinterpret_cast<uintptr_t>(pc);
    const auto load = reinterpret_cast<uintptr_t>(info.dli_fbase);
    // A position-independent module is read at its offset, a fixed one at its address.
    const bool shared = static_cast<const ElfW(Ehdr) *>(info.dli_fbase)->e_type == ET_DYN;
    char function[512] = "", place[512] = "";
    // The return address is just past the call; the line is the call's own.
    const bool asked = AskAddr2line(module, (shared ? at - load : at) - 1, function, sizeof function, place, sizeof place);
    const bool known = asked && strcmp(place, "??:0") != 0 && strcmp(place, "??:?") != 0;
    // The nearest exported symbol below may end before the address (a static function
    // lies between): then it is not the function's name.
    const auto *symbol = static_cast<const ElfW(Sym) *>(entry);
    const bool inside = symbol && info.dli_saddr &&
                        (symbol->st_size == 0 || at < reinterpret_cast<uintptr_t>(info.dli_saddr) + symbol->st_size);
    const char *name = inside ? info.dli_sname : nullptr;
    if (!inside) info.dli_saddr = nullptr;
    uintptr_t offset = info.dli_saddr ? at - reinterpret_cast<uintptr_t>(info.dli_saddr) : at - load;
    if (!name && asked && strcmp(function, "??") != 0) {
        name = function;
        offset = 0;
    }
    char head[640];
    if (name && offset)
        snprintf(head, sizeof head, "%s+0x%lx", name, static_cast<unsigned long>(offset));
    else if (name)
        CopyCut(head, sizeof head, name);
    else
        snprintf(head, sizeof head, "0x%lx", static_cast<unsigned long>(offset));
    if (known)
        snprintf(out, room, "%s (%s, %s)", head, base, strrchr(place, '/') ? strrchr(place, '/') + 1 : place);
    else
        snprintf(out, room, "%s (%s)", head, base);
}

// Frames already printed, by address: a report names the same frames again and again (the
// program's outer calls), and each one costs a run of addr2line. A cache, not a table: an
// address whose place another one took is simply printed anew.
constexpr uint32_t kPrinted = 512;
constexpr size_t kPrintedText = 1024;
struct Printed {
    void *pc;
    char text[kPrintedText];
};
Printed *g_printed = nullptr;
SpinLock g_printedLock;

}  // namespace

void FormatFrame(void *pc, char *out, size_t room) {
    const uint64_t at = Mix(reinterpret_cast<uintptr_t>(pc), 0) & (kPrinted - 1);
    {
        SpinGuard guard(g_printedLock);
        if (g_printed && g_printed[at].pc == pc) {
            CopyCut(out, room, g_printed[at].text);
            return;
        }
    }
    FormatFrameAnew(pc, out, room);
    SpinGuard guard(g_printedLock);
    if (!MapArray(g_printed, kPrinted)) return;
    g_printed[at].pc = pc;
    CopyCut(g_printed[at].text, kPrintedText, out);
}

bool FramesPrepare() {
    static bool looked = false;
    if (!looked) FindAddr2line(), looked = true;
    return true;
}

void FramesFork(bool take) { take ? g_printedLock.lock() : g_printedLock.unlock(); }

}  // namespace vokt
