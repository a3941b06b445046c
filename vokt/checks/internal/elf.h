// SPDX-License-Identifier: MIT
// Private to the checks: names read from an ELF file's own symbol tables, the file's bytes
// given whole. Nothing is read outside them, whatever they hold: a file changed on disk, cut
// short or not ELF at all names nothing.
#ifndef VOKT_CHECKS_ELF_H
#define VOKT_CHECKS_ELF_H

#include <elf.h>
#include <link.h>
#include <stdint.h>
#include <string.h>

namespace vokt::checks {

// count items of T at offset in bytes, or null when they are not all inside.
template <typename T>
const T *ElfAt(const char *bytes, uint64_t size, uint64_t offset, uint64_t count = 1) {
    if (offset > size || count > (size - offset) / sizeof(T) || offset % alignof(T)) return nullptr;
    return reinterpret_cast<const T *>(bytes + offset);
}

// The symbol of the wanted kind (a variable when data, else a function) whose extent holds
// value, a file address: its name (inside bytes) and, in start, its own address. From the
// full symbol table, or the dynamic one where the file was stripped; null when none names it
// or the file is not an ELF file of this machine's class.
inline const char *ElfSymbol(const char *bytes, uint64_t size, uint64_t value, bool data, uint64_t *start) {
    const auto *eh = ElfAt<ElfW(Ehdr)>(bytes, size, 0);
    if (!eh || memcmp(eh->e_ident, ELFMAG, SELFMAG) != 0 || eh->e_ident[EI_CLASS] != (sizeof(void *) == 8 ? ELFCLASS64 : ELFCLASS32) ||
        eh->e_shentsize != sizeof(ElfW(Shdr)))
        return nullptr;
    const auto *sections = ElfAt<ElfW(Shdr)>(bytes, size, eh->e_shoff, eh->e_shnum);
    if (!sections) return nullptr;
    constexpr uint32_t kTables[] = {SHT_SYMTAB, SHT_DYNSYM};
    for (const uint32_t type : kTables) {
        for (ElfW(Half) s = 0; s < eh->e_shnum; s++) {
            const ElfW(Shdr) &table = sections[s];
            if (table.sh_type != type || table.sh_link >= eh->e_shnum || table.sh_entsize != sizeof(ElfW(Sym))) continue;
            const ElfW(Shdr) &strings = sections[table.sh_link];
            const uint64_t count = table.sh_size / sizeof(ElfW(Sym));
            const auto *symbols = ElfAt<ElfW(Sym)>(bytes, size, table.sh_offset, count);
            const char *names = ElfAt<char>(bytes, size, strings.sh_offset, strings.sh_size);
            if (!symbols || !names || strings.sh_size == 0) continue;
            for (uint64_t i = 0; i < count; i++) {
                const ElfW(Sym) &sym = symbols[i];
                const unsigned kind = sym.st_info & 0xfu;  // ELF32_ST_TYPE and ELF64_ST_TYPE alike
                const uint64_t extent = sym.st_size ? sym.st_size : 1;
                if (kind != (data ? STT_OBJECT : STT_FUNC) || sym.st_shndx == SHN_UNDEF || value - sym.st_value >= extent ||
                    value < sym.st_value)
                    continue;
                // A name that is empty or runs off its table names nothing.
                const char *name = sym.st_name < strings.sh_size ? names + sym.st_name : "";
                if (name[0] == '\0' || !memchr(name, '\0', strings.sh_size - sym.st_name)) continue;
                *start = sym.st_value;
                return name;
            }
        }
    }
    return nullptr;
}

}  // namespace vokt::checks

#endif
