// SPDX-License-Identifier: MIT
// The checks name variables and functions from a module's own symbol tables, read from its
// file: a file that is cut short, changed or not ELF at all must name nothing, never crash.
#include <gtest/gtest.h>
#include <link.h>

#include <fstream>
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

}  // namespace
