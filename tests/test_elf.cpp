// SPDX-License-Identifier: MIT
// The checks name variables and functions from a module's own symbol tables, read from its
// file: a file that is cut short, changed or not ELF at all must name nothing, never crash.
#include <gtest/gtest.h>
#include <link.h>

#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "vokt/checks/internal/elf.h"

extern "C" {
// Named by the test; extern "C" and used, so that they keep these names in the table.
int vokt_test_elf_variable[4] = {1, 2, 3, 4};
__attribute__((noinline)) int vokt_test_elf_function(int x) { return x * 3 + vokt_test_elf_variable[x & 3]; }
}

namespace {

std::string FileOf(const char *path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

// What the program's own file was moved by when it was loaded.
uintptr_t ProgramBias() {
    uintptr_t bias = 0;
    dl_iterate_phdr(+[](dl_phdr_info *info, size_t, void *out) -> int {
        *static_cast<uintptr_t *>(out) = info->dlpi_addr;
        return 1;  // the program comes first
    }, &bias);
    return bias;
}

TEST(Elf, NamesTheVariableAndTheFunctionThatHoldAnAddress) {
    const std::string file = FileOf("/proc/self/exe");
    const uintptr_t bias = ProgramBias();
    uint64_t start = 0;
    const auto variable = reinterpret_cast<uintptr_t>(&vokt_test_elf_variable[2]) - bias;
    const char *name = vokt::checks::ElfSymbol(file.data(), file.size(), variable, true, &start);
    ASSERT_NE(name, nullptr);
    EXPECT_STREQ(name, "vokt_test_elf_variable");
    EXPECT_EQ(start, reinterpret_cast<uintptr_t>(&vokt_test_elf_variable[0]) - bias);
    EXPECT_EQ(vokt::checks::ElfSymbol(file.data(), file.size(), variable, false, &start), nullptr);  // not a function
    const auto function = reinterpret_cast<uintptr_t>(&vokt_test_elf_function) - bias + 1;
    name = vokt::checks::ElfSymbol(file.data(), file.size(), function, false, &start);
    ASSERT_NE(name, nullptr);
    EXPECT_STREQ(name, "vokt_test_elf_function");
    EXPECT_EQ(vokt::checks::ElfSymbol(file.data(), file.size(), 0, true, &start), nullptr);
}

TEST(Elf, ABrokenFileNamesNothingAndIsNeverReadOutside) {
    std::string file = FileOf(VOKT_PLANTED);  // a small program: many changes are tried quickly
    ASSERT_GT(file.size(), sizeof(ElfW(Ehdr)));
    uint64_t start = 0;
    const auto Ask = [&](const std::string &bytes, uint64_t value = 0x1000, bool data = true) {
        // Each call on its own copy, exactly as long as the bytes: a read past them is seen
        // by the address sanitizer.
        const std::vector<char> copy(bytes.begin(), bytes.end());
        const char *name = vokt::checks::ElfSymbol(copy.data(), copy.size(), value, data, &start);
        return std::string(name ? name : "(none)");
    };
    // Cut at every point of the headers, and at a few inside the tables.
    const auto *eh = reinterpret_cast<const ElfW(Ehdr) *>(file.data());
    const uint64_t tables = eh->e_shoff, headersEnd = eh->e_shoff + uint64_t{eh->e_shnum} * sizeof(ElfW(Shdr));
    for (uint64_t cut : {uint64_t{0}, uint64_t{4}, uint64_t{63}, tables, tables + 1, headersEnd - 1, file.size() / 2})
        EXPECT_EQ(Ask(file.substr(0, cut)), "(none)") << cut;
    EXPECT_EQ(Ask("not an ELF file at all, but long enough to be read as one's header"), "(none)");
    // Another machine's class names nothing.
    std::string other = file;
    other[EI_CLASS] = sizeof(void *) == 8 ? ELFCLASS32 : ELFCLASS64;
    EXPECT_EQ(Ask(other), "(none)");
    // Bytes of the headers, or of anywhere in the file (its symbols and their names), changed
    // at random a thousand times, and asked for addresses where the program's code and data lie.
    std::mt19937 random(12345);
    for (int round = 0; round < 1000; round++) {
        std::string changed = file;
        for (int k = 0; k < 4; k++) {
            const unsigned where = random() % 4;
            const uint64_t at = where == 0   ? random() % sizeof(ElfW(Ehdr))
                                : where == 1 ? tables + random() % (headersEnd - tables)
                                             : random() % file.size();
            changed[at] = static_cast<char>(random());
        }
        EXPECT_NE(Ask(changed, 0x1000 + random() % 0x4000, random() % 2 == 0), "");  // whatever is found is a name
    }
}

// Each table and name the search reads, broken one at a time around a function it finds.
TEST(Elf, EachTableAndNameIsCheckedBeforeItIsRead) {
    const std::string file = FileOf(VOKT_PLANTED);
    const auto *eh = reinterpret_cast<const ElfW(Ehdr) *>(file.data());
    const auto *sections = reinterpret_cast<const ElfW(Shdr) *>(file.data() + eh->e_shoff);
    int table = -1;
    for (int s = 0; s < eh->e_shnum && table < 0; s++)
        if (sections[s].sh_type == SHT_SYMTAB) table = s;
    ASSERT_GE(table, 0) << "the planted program keeps its symbol table";
    const ElfW(Shdr) &symtab = sections[table];
    const int strtab = static_cast<int>(symtab.sh_link);
    const auto *symbols = reinterpret_cast<const ElfW(Sym) *>(file.data() + symtab.sh_offset);
    size_t found = 0;  // a named function with a size
    for (size_t i = 1; i < symtab.sh_size / sizeof(ElfW(Sym)) && !found; i++)
        if ((symbols[i].st_info & 0xf) == STT_FUNC && symbols[i].st_size > 0 && symbols[i].st_shndx != SHN_UNDEF &&
            file[sections[strtab].sh_offset + symbols[i].st_name] != '\0')
            found = i;
    ASSERT_GT(found, 0u);
    const ElfW(Sym) sym = symbols[found];
    const std::string name(file.data() + sections[strtab].sh_offset + sym.st_name);
    uint64_t start = 0;
    const auto Ask = [&](const std::function<void(ElfW(Shdr) *, ElfW(Sym) *)> &change) {
        std::vector<char> copy(file.begin(), file.end());
        auto *shdr = reinterpret_cast<ElfW(Shdr) *>(copy.data() + eh->e_shoff);
        for (int s = 0; s < eh->e_shnum; s++)  // the dynamic table would answer in its stead
            if (shdr[s].sh_type == SHT_DYNSYM) shdr[s].sh_type = SHT_NULL;
        change(shdr, reinterpret_cast<ElfW(Sym) *>(copy.data() + symtab.sh_offset) + found);
        const char *got = vokt::checks::ElfSymbol(copy.data(), copy.size(), sym.st_value + 1, false, &start);
        return std::string(got ? got : "(none)");
    };
    EXPECT_EQ(Ask([](ElfW(Shdr) *, ElfW(Sym) *) {}), name);
    EXPECT_EQ(start, sym.st_value);
    const uint64_t far = file.size() + 4096;
    EXPECT_EQ(Ask([&](ElfW(Shdr) *h, ElfW(Sym) *) { h[table].sh_offset = far; }), "(none)") << "symbols outside";
    EXPECT_EQ(Ask([&](ElfW(Shdr) *h, ElfW(Sym) *) { h[strtab].sh_offset = far; }), "(none)") << "names outside";
    EXPECT_EQ(Ask([&](ElfW(Shdr) *h, ElfW(Sym) *) { h[strtab].sh_size = 0; }), "(none)") << "no names";
    EXPECT_EQ(Ask([&](ElfW(Shdr) *h, ElfW(Sym) *s) { s->st_name = static_cast<uint32_t>(h[strtab].sh_size + 9); }), "(none)");
    EXPECT_EQ(Ask([&](ElfW(Shdr) *h, ElfW(Sym) *s) { h[strtab].sh_size = s->st_name + 1; }), "(none)") << "a name cut";
    EXPECT_EQ(Ask([](ElfW(Shdr) *, ElfW(Sym) *s) { s->st_shndx = SHN_UNDEF; }), "(none)") << "undefined";
    EXPECT_EQ(Ask([&](ElfW(Shdr) *h, ElfW(Sym) *) { h[table].sh_link = 0xffff; }), "(none)") << "names of no section";
}

}  // namespace
