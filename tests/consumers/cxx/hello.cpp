// SPDX-License-Identifier: MIT
// A C++ program built against an installed vokt through find_package(vokt).
#include <cstdio>

#include "vokt/vokt.hpp"

int main() {
    Runtime_Init();
    vokt::Ptr<Vector> words(Vector_NewOwning());
    if (!vokt::Ok(String_SplitChars("hello from C++", ' ', words.get()))) return 1;
    vokt::Ptr<String> joined(String_New());
    String_Join(words.get(), "-", joined.get());
    std::printf("%s\n", vokt::Text(joined.get()));
    return Vector_Length(words.get()) == 3 ? 0 : 1;
}
