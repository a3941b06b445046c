// SPDX-License-Identifier: MIT
// The object model's shared pieces: object allocation, EventObject and start-up.
#include "vokt/core/object.h"

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "vokt/core/vokt_version.h"
#include "vokt/diag/error.h"
#include "vokt/diag/log.h"
#include "vokt/internal/alloc.h"
#include "vokt/internal/assert.h"

namespace {

constexpr char kModule[] = "object";

const ClassDescriptor kEventObjectClass = {
    sizeof(EventObject),
    "EventObject",
    +[](void *o) { vokt::Free(o); },
    +[](const void *probe, const void *stored) {
        return EventObject_Equals(static_cast<const EventObject *>(probe), static_cast<const EventObject *>(stored));
    },
    nullptr,
    nullptr,
};

// Linux needs no socket-layer start-up; the hook stays so the start-up steps read the
// same on every platform.
int32_t StartSocketLayer() { return 0; }

void StartUp() {
    ErrorStore_Init();
    Log_Init();
    const int32_t ref = StartSocketLayer();
    if (ErrorStore_IsError(ref)) {
        Error *e = ErrorStore_Take(ref);
        Log_Write(0, "%s", e->message && e->message->string ? e->message->string : "");
        Object_Destroy(e);
    }
    // rand() is seeded from the clock for the callers' own use; nothing here needs secrecy.
    srand(static_cast<unsigned>(time(nullptr)));  // NOLINT(cert-msc32-c,cert-msc51-cpp)
}

}  // namespace

namespace vokt {

void *NoObject(const char *what) {
    Log_Write(0, "Unable to allocate %s", what);
    return nullptr;
}

}  // namespace vokt

extern "C" {

EventObject *EventObject_New(uint64_t value) {
    auto *rval = vokt::New<EventObject>(&kEventObjectClass, "EventObject rval");
    if (rval) rval->value = value;
    return rval;
}

int32_t EventObject_Equals(const EventObject *a, const EventObject *b) {
    // Only two EventObjects have values to compare; anything else is never equal.
    if (vokt::UsedAfterDestroy(a, &kEventObjectClass) || vokt::UsedAfterDestroy(b, &kEventObjectClass)) return 0;
    if (!a || !b || a->ftbl != b->ftbl) return 0;
    return a->value == b->value ? 1 : 0;
}

void *Object_New(const ClassDescriptor *cls) {
    VOKT_ASSERT_OR_RETURN(cls != NULL && cls->size >= sizeof(Object), nullptr);
    char what[256];
    snprintf(what, sizeof what, "%.200s object", cls->name ? cls->name : "");
    return vokt::NewObject(cls, what);
}

void Object_Free(void *object) { vokt::Free(object); }

void Object_Destroy(void *object) {
    if (!object) return;
    // Without a class to compare with, the records say whether it was destroyed already.
    if (vokt::Checking(vokt::kCheckObjects) && vokt::Destroyed(object, true)) return;
    const ClassDescriptor *cls = static_cast<Object *>(object)->ftbl;
    if (cls && cls->Destroy) cls->Destroy(object);
}

int32_t Runtime_VersionNumber(void) { return VOKT_VERSION_NUMBER; }

const char *Runtime_VersionString(void) { return VOKT_VERSION_STRING; }

// Start-up runs once per process; later calls, from any thread, return at once (after
// the first call has finished).
void Runtime_Init(void) {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, StartUp);
}

}  // extern "C"
