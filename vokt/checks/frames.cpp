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

// What the dynamic linker says of a frame, and where addr2line is to look for it.
struct Where {
    Dl_info info;
    const ElfW(Sym) *symbol;
    const char *module;  // the file, the program's own read from /proc/self/exe
    uintptr_t address;   // in the file: of the call, one byte before the return address
};

bool Locate(void *pc, Where *w) {
    void *entry = nullptr;
    w->info = Dl_info{};
    const auto at = reinterpret_cast<uintptr_t>(pc);
    if (!dladdr1(pc, &w->info, &entry, RTLD_DL_SYMENT) || !w->info.dli_fname) {
        // A static program: the dynamic linker knows nothing of it.
        uintptr_t bias = 0;
        if (!ProgramBias(pc, &bias)) return false;
        w->info = Dl_info{};
        w->info.dli_fbase = reinterpret_cast<void *>(bias);  // NOLINT(performance-no-int-to-ptr): an address, read as one
        w->symbol = nullptr;
        w->module = ProgramPath();
        w->address = at - bias - 1;
        return true;
    }
    w->symbol = static_cast<const ElfW(Sym) *>(entry);
    w->module = w->info.dli_fname;
    if (w->module[0] == '\0' || strcmp(w->module, program_invocation_name) == 0) w->module = ProgramPath();
    const auto load = reinterpret_cast<uintptr_t>(w->info.dli_fbase);
    // A position-independent module is read at its offset, a fixed one at its address.
    const bool shared = static_cast<const ElfW(Ehdr) *>(w->info.dli_fbase)->e_type == ET_DYN;
    w->address = (shared ? at - load : at) - 1;  // the return address is just past the call
    return true;
}

// What addr2line says of one address: the functions it stands for, the calls inlined into
// the function first and the function itself last, each with its "file:line".
constexpr int kInlined = 4;  // kept of them: the innermost three and the function
struct Answer {
    int count;
    char function[kInlined][512];
    char place[kInlined][512];
};

// Runs addr2line once on n addresses of one module, an answer each (count 0 when none came).
// False when it could not be run.
bool AskAddr2line(const char *module, const uintptr_t *addresses, size_t n, Answer *answers) {
    int fds[2];
    if (!g_hasAddr2line || n == 0 || pipe2(fds, O_CLOEXEC) != 0) return false;
    constexpr size_t kArgs = 8;
    auto **argv = static_cast<char **>(MapZeroed((n + kArgs) * sizeof(char *) + n * 24));
    if (!argv) return close(fds[0]), close(fds[1]), false;
    char *hex = reinterpret_cast<char *>(argv + n + kArgs);
    argv[0] = const_cast<char *>("addr2line");
    argv[1] = const_cast<char *>("-f");
    argv[2] = const_cast<char *>("-C");
    argv[3] = const_cast<char *>("-i");  // the calls inlined at the address, each a line pair
    argv[4] = const_cast<char *>("-a");  // each address's answer starts with the address
    argv[5] = const_cast<char *>("-e");
    argv[6] = const_cast<char *>(module);
    for (size_t i = 0; i < n; i++, hex += 24) {
        snprintf(hex, 24, "0x%lx", static_cast<unsigned long>(addresses[i]));
        argv[7 + i] = hex;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    // posix_spawn runs no fork handlers: the log's, which take the runtime's locks, stay out.
    const int rc = posix_spawnp(&pid, "addr2line", &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    Unmap(argv, (n + kArgs) * sizeof(char *) + n * 24);
    close(fds[1]);
    // An address's line, then two lines for each function it stands for; read a line at a time.
    for (size_t i = 0; i < n; i++) answers[i].count = 0;
    char line[1024];
    size_t used = 0, pairLine = 0;
    Answer *answer = nullptr;
    ssize_t got = 0;
    char chunk[4096];
    while (rc == 0 && (got = read(fds[0], chunk, sizeof chunk)) > 0) {
        for (ssize_t k = 0; k < got; k++) {
            if (chunk[k] != '\n') {
                if (used < sizeof line - 1) line[used++] = chunk[k];
                continue;
            }
            line[used] = '\0';
            used = 0;
            if (pairLine == 0 && line[0] == '0' && line[1] == 'x' && line[2 + strspn(line + 2, "0123456789abcdef")] == '\0') {
                answer = answer ? (answer + 1 < answers + n ? answer + 1 : nullptr) : answers;
                continue;
            }
            if (!answer) continue;
            // Past kInlined, the last slot takes each later pair: the function itself comes last.
            const int slot = answer->count < kInlined ? answer->count : kInlined - 1;
            if (pairLine == 0) {
                CopyCut(answer->function[slot], 512, line);
            } else {
                CopyCut(answer->place[slot], 512, line);
                answer->place[slot][strcspn(answer->place[slot], " ")] = '\0';  // " (discriminator 1)"
                answer->count = slot + 1;
            }
            pairLine ^= 1;
        }
    }
    if (rc == 0) waitpid(pid, nullptr, 0);
    close(fds[0]);
    return rc == 0;
}

bool Known(const char *place) { return place[0] && strcmp(place, "??:0") != 0 && strcmp(place, "??:?") != 0; }
const char *FileOf(const char *path) { return strrchr(path, '/') ? strrchr(path, '/') + 1 : path; }

// A frame as text, from what the linker and addr2line (its answer, when asked) said: the
// calls inlined at the address first, "Vector_Add (app, vector.h:12) <- main+0x2f (app, app.c:30)".
void Compose(void *pc, Where &w, const Answer *answer, char *out, size_t room) {
    const char *base = FileOf(w.module);
    const bool asked = answer && answer->count > 0;
    size_t used = 0;
    out[0] = '\0';
    for (int i = 0; asked && i + 1 < answer->count && used + 1 < room; i++) {
        snprintf(out + used, room - used, Known(answer->place[i]) ? "%s (%s, %s) <- " : "%s (%s) <- ",
                 answer->function[i], base, FileOf(answer->place[i]));
        used += strlen(out + used);
    }
    out += used, room -= used;
    const char *function = asked ? answer->function[answer->count - 1] : "";
    const char *place = asked ? answer->place[answer->count - 1] : "";
    const auto at = reinterpret_cast<uintptr_t>(pc);
    const auto load = reinterpret_cast<uintptr_t>(w.info.dli_fbase);
    const bool known = asked && Known(place);
    // The nearest exported symbol below may end before the address (a static function
    // lies between): then it is not the function's name.
    const bool inside = w.symbol && w.info.dli_saddr &&
                        (w.symbol->st_size == 0 || at < reinterpret_cast<uintptr_t>(w.info.dli_saddr) + w.symbol->st_size);
    const char *name = inside ? w.info.dli_sname : nullptr;
    if (!inside) w.info.dli_saddr = nullptr;
    uintptr_t offset = w.info.dli_saddr ? at - reinterpret_cast<uintptr_t>(w.info.dli_saddr) : at - load;
    if (!name && asked && function[0] && strcmp(function, "??") != 0) {
        name = function;
        offset = 0;
    }
    char symbol[512];
    uintptr_t symbolOffset = 0;
    if (!name && SymbolAt(reinterpret_cast<void *>(at - 1), false, symbol, sizeof symbol, &symbolOffset)) {  // NOLINT(performance-no-int-to-ptr)
        name = symbol;
        offset = symbolOffset + 1;
    }
    char head[640];
    if (name && offset)
        snprintf(head, sizeof head, "%s+0x%lx", name, static_cast<unsigned long>(offset));
    else if (name)
        CopyCut(head, sizeof head, name);
    else
        snprintf(head, sizeof head, "0x%lx", static_cast<unsigned long>(offset));
    if (known)
        snprintf(out, room, "%s (%s, %s)", head, base, FileOf(place));
    else
        snprintf(out, room, "%s (%s)", head, base);
}

// Frames already printed, by address: a report names the same frames again and again (the
// program's outer calls), and each costs addr2line. The table grows with the frames reports
// print; past kPrintedMost it starts afresh.
constexpr size_t kPrintedText = 1024;
constexpr size_t kPrintedMost = 1u << 17;
struct Printed {
    void *pc;  // null: empty
    char text[kPrintedText];
};
struct PrintedTraits {
    static bool Empty(const Printed &p) { return p.pc == nullptr; }
    static uint64_t Hash(const Printed &p) { return Mix(reinterpret_cast<uintptr_t>(p.pc), 0); }
};
checks::Table<Printed, PrintedTraits> g_printed;
SpinLock g_printedLock;

Printed *FindPrinted(void *pc) {
    return g_printed.Find(Mix(reinterpret_cast<uintptr_t>(pc), 0), [pc](const Printed &p) { return p.pc == pc; });
}

bool Cached(void *pc, char *out, size_t room) {
    SpinGuard guard(g_printedLock);
    const Printed *found = FindPrinted(pc);
    if (found && out) CopyCut(out, room, found->text);
    return found != nullptr;
}

void Keep(void *pc, const char *text) {
    SpinGuard guard(g_printedLock);
    if (FindPrinted(pc)) return;
    if (g_printed.Full() && g_printed.Capacity() >= kPrintedMost) {  // start afresh
        Unmap(g_printed.Slots(), g_printed.Capacity() * sizeof(Printed));
        g_printed.Attach(nullptr, 0);
    }
    if (!MakeRoom(g_printed)) return;
    Printed *slot = g_printed.Claim(Mix(reinterpret_cast<uintptr_t>(pc), 0));
    slot->pc = pc;
    CopyCut(slot->text, kPrintedText, text);
}

}  // namespace

void FormatFrame(void *pc, char *out, size_t room) {
    if (Cached(pc, out, room)) return;
    Where w{};
    if (!Locate(pc, &w)) return void(snprintf(out, room, "%p", pc));
    Answer answer{};
    Compose(pc, w, AskAddr2line(w.module, &w.address, 1, &answer) ? &answer : nullptr, out, room);
    Keep(pc, out);
}

void ResolveFrames(void *const *pcs, size_t n) {
    size_t pending = 0;
    for (size_t i = 0; i < n; i++) pending += !Cached(pcs[i], nullptr, 0);
    if (pending == 0) return;
    // Each frame not printed yet, located once; then module by module, kBatch at a time.
    constexpr size_t kBatch = 256;
    struct Batch {
        uintptr_t address[kBatch];
        size_t index[kBatch];
        Answer answer[kBatch];
    };
    const size_t bytes = sizeof(Batch) + pending * (sizeof(Where) + sizeof(void *));
    auto *b = static_cast<Batch *>(MapZeroed(bytes));
    if (!b) return;
    auto *where = reinterpret_cast<Where *>(b + 1);
    auto *pc = reinterpret_cast<void **>(where + pending);
    size_t count = 0;
    for (size_t i = 0; i < n; i++)
        if (!Cached(pcs[i], nullptr, 0) && Locate(pcs[i], &where[count])) pc[count++] = pcs[i];
    for (size_t first = 0; first < count; first++) {
        if (!where[first].module) continue;  // done
        const char *module = where[first].module;
        size_t batch = 0;
        for (size_t j = first; j < count && batch < kBatch; j++) {
            if (where[j].module != module) continue;
            where[j].module = nullptr;  // taken
            bool again = false;  // the same frame twice: one line will do
            for (size_t k = 0; k < batch && !again; k++) again = pc[b->index[k]] == pc[j];
            if (again) continue;
            b->index[batch] = j;
            b->address[batch] = where[j].address;
            batch++;
        }
        const bool asked = AskAddr2line(module, b->address, batch, b->answer);
        for (size_t k = 0; k < batch; k++) {
            Where &w = where[b->index[k]];
            w.module = module;
            char text[kPrintedText];
            Compose(pc[b->index[k]], w, asked ? &b->answer[k] : nullptr, text, sizeof text);
            w.module = nullptr;
            Keep(pc[b->index[k]], text);
        }
    }
    Unmap(b, bytes);
}

bool FramesPrepare() {
    static bool looked = false;
    if (!looked) FindAddr2line(), looked = true;
    return true;
}

void FramesFork(bool take) { take ? g_printedLock.lock() : g_printedLock.unlock(); }

}  // namespace vokt
