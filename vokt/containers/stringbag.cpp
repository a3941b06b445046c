// SPDX-License-Identifier: MIT
// StringBag: a multiset of texts that match without regard to case, in insertion order.
#include "vokt/containers/stringbag.h"

#include <strings.h>

#include "vokt/internal/alloc.h"
#include "vokt/internal/assert.h"
#include "vokt/internal/classes.h"

namespace {

constexpr char kModule[] = "stringbag";

const ClassDescriptor kStringBagClass = {
    sizeof(StringBag), "StringBag", +[](void *o) { StringBag_Free(static_cast<StringBag *>(o)); },
    nullptr,           nullptr,     nullptr,
};

const char *TextOf(const StringBagElem *e) { return e && e->string && e->string->string ? e->string->string : ""; }

const ClassDescriptor kStringBagElemClass = {
    sizeof(StringBagElem),
    "StringBagElem",
    +[](void *o) {
        auto *e = static_cast<StringBagElem *>(o);
        Object_Destroy(e->string);
        vokt::Free(e);
    },
    nullptr,
    +[](const void *pa, const void *pb) {
        return strcasecmp(TextOf(*static_cast<const StringBagElem *const *>(pa)),
                          TextOf(*static_cast<const StringBagElem *const *>(pb)));
    },
    nullptr,
};

}  // namespace

extern "C" {

StringBag *StringBag_New(void) {
    auto *sb = vokt::New<StringBag>(&kStringBagClass, "StringBag sb");
    if (!sb) return nullptr;
    vokt::OwnedBy mine(sb);
    sb->elements = Vector_NewOwning();
    if (!sb->elements) {
        vokt::Free(sb);
        return nullptr;
    }
    return sb;
}

void StringBag_Free(StringBag *bag) {
    VOKT_ASSERT_OR_RETURN(bag != NULL);
    if (vokt::DestroyedAgain(bag, &kStringBagClass)) return;  // destroyed before: reported, nothing released
    Object_Destroy(bag->elements);
    vokt::Free(bag);
}

int32_t StringBag_Add(StringBag *bag, const char *text, uint32_t count) {
    VOKT_ASSERT_OR_RETURN(bag != NULL, -1);
    if (vokt::UsedAfterDestroy(bag, &kStringBagClass)) return -1;
    VOKT_ASSERT_OR_RETURN(text != NULL, -1);
    vokt::OwnedBy mine(bag);
    Vector *v = bag->elements;
    const vokt::VectorReader read(v);
    // Newest first: recently added texts are the likeliest to come again.
    for (int64_t i = read.Length() - 1; i >= 0; i--) {
        auto *e = static_cast<StringBagElem *>(read.At(i));
        if (e && strcasecmp(TextOf(e), text) == 0) {
            e->count += count;
            return 0;
        }
    }
    StringBagElem *e = StringBagElem_New(text, count);
    if (!e) return -2;
    if (!Vector_Add(v, e)) {
        Object_Destroy(e);
        return -2;
    }
    return 0;
}

void StringBag_Sort(StringBag *bag) {
    VOKT_ASSERT_OR_RETURN(bag != NULL);
    if (vokt::UsedAfterDestroy(bag, &kStringBagClass)) return;
    Vector_Sort(bag->elements);
}

int64_t StringBag_Length(StringBag *bag) {
    VOKT_ASSERT_OR_RETURN(bag != NULL, 0);
    if (vokt::UsedAfterDestroy(bag, &kStringBagClass)) return 0;
    return Vector_Length(bag->elements);
}

StringBagElem *StringBagElem_New(const char *text, uint32_t count) {
    VOKT_ASSERT_OR_RETURN(text != NULL, nullptr);
    auto *sbe = vokt::New<StringBagElem>(&kStringBagElemClass, "StringBagElem sbe");
    if (!sbe) return nullptr;
    sbe->string = String_NewFromChars(text);
    if (!sbe->string) {
        vokt::Free(sbe);
        return nullptr;
    }
    sbe->count = count;
    return sbe;
}

}  // extern "C"
