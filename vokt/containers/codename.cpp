// SPDX-License-Identifier: MIT
// CodeName: 6-bit blocks laid end to end over two 32-bit words, block 0 lowest.
#include "vokt/containers/codename.h"

#include "vokt/internal/alloc.h"
#include "vokt/internal/assert.h"
#include "vokt/internal/errors.h"

namespace {

constexpr char kModule[] = "codename";
constexpr int32_t kBlocks = 11;
constexpr uint32_t kBlockMask = 0x3F;

const ClassDescriptor kCodeNameClass = {
    sizeof(CodeName), "CodeName", +[](void *o) { vokt::Free(o); }, nullptr, nullptr, nullptr,
};

CodeName *NewCode(uint32_t low, uint32_t high) {
    auto *codename = vokt::New<CodeName>(&kCodeNameClass, "CodeName codename");
    if (codename) {
        codename->words[0] = low;
        codename->words[1] = high;
    }
    return codename;
}

uint32_t ValueOf(char c) {
    if (c >= 'A' && c <= 'Z') return static_cast<uint32_t>(c - 'A' + 1);
    if (c >= 'a' && c <= 'z') return static_cast<uint32_t>(c - 'a' + 27);
    if (c >= '0' && c <= '9') return static_cast<uint32_t>(c - '0' + 53);
    return c == '_' ? 63 : 0;
}

char CharOf(uint32_t v) {
    if (v >= 1 && v <= 26) return static_cast<char>('A' + v - 1);
    if (v >= 27 && v <= 52) return static_cast<char>('a' + v - 27);
    if (v >= 53 && v <= 62) return static_cast<char>('0' + v - 53);
    return '_';
}

uint32_t BlockOf(const uint32_t *words, int32_t index) {
    const uint64_t code = (static_cast<uint64_t>(words[1]) << 32) | words[0];
    return static_cast<uint32_t>(code >> (6 * index)) & kBlockMask;
}

}  // namespace

extern "C" {

CodeName *CodeName_New(void) { return NewCode(0, 0); }

CodeName *CodeName_Copy(const CodeName *code) {
    VOKT_ASSERT_OR_RETURN(code != NULL, nullptr);
    if (vokt::UsedAfterDestroy(code, &kCodeNameClass)) return nullptr;
    return NewCode(code->words[0], code->words[1]);
}

CodeName *CodeName_FromWords(const uint32_t *words) {
    VOKT_ASSERT_OR_RETURN(words != NULL, nullptr);
    return NewCode(words[0], words[1]);
}

CodeName *CodeName_FromName(const char *name) {
    VOKT_ASSERT_OR_RETURN(name != NULL, nullptr);
    CodeName *code = NewCode(0, 0);
    if (!code) return nullptr;
    for (int32_t i = 0; i < kBlocks && name[i] != '\0'; i++) CodeName_SetBlock(code->words, i, ValueOf(name[i]));
    return code;
}

int32_t CodeName_SetBlock(uint32_t *words, int32_t index, uint32_t value) {
    VOKT_ASSERT_OR_RETURN(words != NULL, -1);
    if (index < 0 || index >= kBlocks) {
        return vokt::StoreError(Error_NewInternal("block index out of bounds"));
    }
    value &= kBlockMask;
    const int32_t bit = 6 * index;
    if (bit + 6 <= 32) {
        words[0] = (words[0] & ~(kBlockMask << bit)) | (value << bit);
    } else if (bit < 32) {
        // Block 5 straddles the words: two bits at the top of the low word, four at the
        // bottom of the high word.
        words[0] = (words[0] & ~(kBlockMask << bit)) | (value << bit);
        words[1] = (words[1] & ~(kBlockMask >> (32 - bit))) | (value >> (32 - bit));
    } else {
        // Block 10 loses the bits that fall off the top of the high word.
        words[1] = (words[1] & ~(kBlockMask << (bit - 32))) | (value << (bit - 32));
    }
    return 0;
}

uint64_t CodeName_Value(const CodeName *code) {
    if (vokt::UsedAfterDestroy(code, &kCodeNameClass)) return 0;
    if (!code) return 0;
    return (static_cast<uint64_t>(code->words[1]) << 32) | code->words[0];
}

int32_t CodeName_ToName(const CodeName *code, String *out) {
    VOKT_ASSERT_OR_RETURN(code != NULL, -1);
    if (vokt::UsedAfterDestroy(code, &kCodeNameClass)) return -1;
    char name[kBlocks + 1];
    int32_t n = 0;
    for (uint32_t v; n < kBlocks && (v = BlockOf(code->words, n)) != 0; n++) name[n] = CharOf(v);
    name[n] = '\0';
    return String_Set(out, name);
}

}  // extern "C"
