// SPDX-License-Identifier: MIT
// CodeName: packing a name and reading it back, and setting single blocks.
#include <fuzzer/FuzzedDataProvider.h>

#include "check.h"

namespace {

bool Packable(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_'; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider in(data, size);
    const int32_t index = in.ConsumeIntegralInRange<int32_t>(-2, 12);
    const uint32_t value = in.ConsumeIntegral<uint32_t>();
    const std::string name = CText(in.ConsumeRemainingBytesAsString());

    // The first ten characters come back up to the first one that cannot be packed.
    size_t packable = 0;
    while (packable < name.size() && packable < 10 && Packable(name[packable])) packable++;
    CodeName *code = CodeName_FromName(name.c_str());
    String *back = String_New();
    FUZZ_CHECK(CodeName_ToName(code, back) == 0);
    FUZZ_CHECK(Text(back).substr(0, packable) == name.substr(0, packable));
    if (packable < 10) FUZZ_CHECK(Text(back).size() == packable);

    const uint64_t before = CodeName_Value(code);
    const int32_t rc = CodeName_SetBlock(code->words, index, value);
    if (index < 0 || index > 10) {
        DropError(rc);
        FUZZ_CHECK(CodeName_Value(code) == before);
    } else {
        FUZZ_CHECK(rc == 0);
        const uint64_t mask = index == 10 ? 0xF : 0x3F;
        const uint64_t others = ~(mask << (6 * index));
        FUZZ_CHECK(((CodeName_Value(code) >> (6 * index)) & mask) == (value & mask));
        FUZZ_CHECK((CodeName_Value(code) & others) == (before & others));
    }
    Object_Destroy(code);
    Object_Destroy(back);
    return 0;
}
