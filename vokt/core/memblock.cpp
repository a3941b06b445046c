// SPDX-License-Identifier: MIT
// MemBlock: a raw buffer resized to exactly what its holder asks for.
#include "vokt/core/memblock.h"

#include "vokt/diag/error.h"
#include "vokt/diag/log.h"
#include "vokt/internal/alloc.h"
#include "vokt/internal/assert.h"
#include "vokt/internal/errors.h"

namespace {

constexpr char kModule[] = "memblock";

const ClassDescriptor kMemBlockClass = {
    sizeof(MemBlock), "MemBlock", +[](void *o) { MemBlock_Free(static_cast<MemBlock *>(o)); }, nullptr, nullptr, nullptr,
};

}  // namespace

extern "C" {

MemBlock *MemBlock_New(size_t size) {
    auto *mem = vokt::New<MemBlock>(&kMemBlockClass, "MemBlock mem");
    if (!mem) return nullptr;
    mem->data = vokt::AllocFor(mem, size);
    // The half-built block (data null) is returned on purpose: the caller tests data.
    if (!mem->data && size != 0) Log_Write(0, "Failed to allocate block of %d bytes", static_cast<int>(size));
    return mem;
}

int32_t MemBlock_Resize(MemBlock *mem, size_t size) {
    VOKT_ASSERT_OR_RETURN(mem!=NULL, -1);
    if (vokt::UsedAfterDestroy(mem, &kMemBlockClass)) return -1;
    void *data = mem->data ? vokt::Realloc(mem->data, size) : vokt::AllocFor(mem, size);  // a record keeps its owner
    if (!data && size != 0) {
        Log_Write(0, "Failed to re-allocate block of %d bytes", static_cast<int>(size));
        return vokt::StoreError(Error_NewInternal("Memory re-allocation of size %d failed", static_cast<int>(size)));
    }
    mem->data = data;
    return 0;
}

void MemBlock_Free(MemBlock *mem) {
    VOKT_ASSERT_OR_RETURN(mem!=NULL);
    if (vokt::DestroyedAgain(mem, &kMemBlockClass)) return;  // destroyed before: reported, nothing released
    vokt::Free(mem->data);
    vokt::Free(mem);
}

}  // extern "C"
