// SPDX-License-Identifier: MIT
// The cleanup list: objects a function makes, destroyed together on its every return path.
#include "vokt/containers/vector.h"
#include "vokt/internal/classes.h"
#include "vokt/text/string.h"

extern "C" {

void *CleanupList_Add(Vector **list, void *object) {
    if (!object) return nullptr;
    if (!list) {
        Object_Destroy(object);
        return nullptr;
    }
    if (!*list) {
        *list = Vector_NewOwning();
        if (!*list) {
            Object_Destroy(object);
            return nullptr;
        }
    }
    if (!vokt::VectorSlots(*list)->Add(*list, object)) {
        Object_Destroy(object);
        return nullptr;
    }
    return object;
}

}  // extern "C"
