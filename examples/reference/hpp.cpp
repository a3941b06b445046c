// SPDX-License-Identifier: MIT
// The C++ helpers: objects owned by a scope, locks held for a scope, errors taken.
#include <cstdio>

#include "vokt/vokt.hpp"

int main() {
    Runtime_Init();
    vokt::Ptr<Vector> names(Vector_NewOwning());  // destroyed at the end of the scope
    if (!names || !vokt::Ok(Vector_SetSynchronized(names.get(), 1))) return 1;
    {
        vokt::VectorLock lock(names.get());  // two operations as one step
        if (Vector_Length(names.get()) == 0) Vector_Add(names.get(), String_NewFromChars("first"));
    }
    auto copy = vokt::Own(String_Copy(static_cast<String *>(Vector_GetAt(names.get(), 0))));
    std::printf("%s\n", vokt::Text(copy.get()));

    if (auto error = vokt::TakeError(Month_FromName("Smarch")))  // freed by the pointer
        std::printf("%s\n", error->message->string);
    return 0;
}
