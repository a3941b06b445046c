// SPDX-License-Identifier: MIT
// Names of addresses read from the modules' own symbol tables. The dynamic linker knows
// only what a module exports, and nothing at all in a fully static program; the file's
// full table (or, when it was stripped, its dynamic one) names static variables such as a
// file's Mutex, and functions where no addr2line is installed.
#include <fcntl.h>
#include <link.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "vokt/checks/internal/common.h"
#include "vokt/checks/internal/elf.h"

// The C++ runtime's demangler, when the program has that runtime: a C program linked with
// the static library has not, and its names need none.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the C++ runtime's own name
extern "C" char *__cxa_demangle(const char *name, char *out, size_t *length, int *status) __attribute__((weak));

namespace vokt {

namespace {

struct Module {
    uintptr_t address;  // asked
    uintptr_t bias;     // what the module was moved by when it was loaded
    const char *path;   // null: none holds the address
};

// The loaded module that holds m->address: dl_iterate_phdr answers in static programs too.
bool ModuleOf(Module *m) {
    m->path = nullptr;
    dl_iterate_phdr(+[](dl_phdr_info *info, size_t, void *context) -> int {
        auto *m = static_cast<Module *>(context);
        for (ElfW(Half) i = 0; i < info->dlpi_phnum; i++) {
            const ElfW(Phdr) &p = info->dlpi_phdr[i];
            const uintptr_t start = info->dlpi_addr + p.p_vaddr;
            if (p.p_type != PT_LOAD || m->address < start || m->address - start >= p.p_memsz) continue;
            m->bias = info->dlpi_addr;
            m->path = info->dlpi_name && info->dlpi_name[0] ? info->dlpi_name : ProgramPath();
            return 1;
        }
        return 0;
    }, m);
    return m->path && m->path[0];
}

// A file mapped for reading, closed when done.
class Mapped {
public:
    explicit Mapped(const char *path) {
        const int fd = open(path, O_RDONLY | O_CLOEXEC);
        struct stat st {};
        if (fd >= 0 && fstat(fd, &st) == 0 && st.st_size > static_cast<off_t>(sizeof(ElfW(Ehdr)))) {
            void *at = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
            if (at != MAP_FAILED) bytes_ = static_cast<const char *>(at), size_ = static_cast<size_t>(st.st_size);
        }
        if (fd >= 0) close(fd);
    }
    ~Mapped() {
        if (bytes_) munmap(const_cast<char *>(bytes_), size_);
    }
    Mapped(const Mapped &) = delete;
    Mapped &operator=(const Mapped &) = delete;
    const char *Bytes() const { return bytes_; }
    uint64_t Size() const { return size_; }

private:
    const char *bytes_ = nullptr;
    size_t size_ = 0;
};

}  // namespace

const char *ProgramPath() {
    static char path[4096];
    if (!path[0]) {
        const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
        path[n > 0 ? n : 0] = '\0';
    }
    return path;
}

bool ProgramBias(const void *address, uintptr_t *bias) {
    Module m{reinterpret_cast<uintptr_t>(address), 0, nullptr};
    if (!ModuleOf(&m) || m.path != ProgramPath()) return false;
    *bias = m.bias;
    return true;
}

bool SymbolAt(const void *address, bool data, char *out, size_t room, uintptr_t *offset) {
    const auto at = reinterpret_cast<uintptr_t>(address);
    Module m{at, 0, nullptr};
    if (room == 0 || !ModuleOf(&m)) return false;
    const Mapped file(m.path);
    uint64_t start = 0;
    const uint64_t value = at - m.bias;
    const char *name = file.Bytes() ? checks::ElfSymbol(file.Bytes(), file.Size(), value, data, &start) : nullptr;
    if (!name) return false;
    *offset = static_cast<uintptr_t>(value - start);
    // C++ names read as written; the demangler's text comes from malloc, not from the
    // allocation layer, and goes back to it.
    int status = -1;
    char *readable = name[0] == '_' && name[1] == 'Z' && __cxa_demangle ? __cxa_demangle(name, nullptr, nullptr, &status) : nullptr;
    snprintf(out, room, "%s", status == 0 && readable ? readable : name);
    free(readable);  // NOLINT(cppcoreguidelines-no-malloc): the demangler's own
    return true;
}

}  // namespace vokt
