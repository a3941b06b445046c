// SPDX-License-Identifier: MIT
// Private: the one-at-a-time hash shared by String and StringMap.
#ifndef VOKT_INTERNAL_HASH_H
#define VOKT_INTERNAL_HASH_H

#include <stddef.h>
#include <stdint.h>

namespace vokt {

inline uint32_t OneAtATime(const char *text, size_t length) {
    uint32_t h = 0;
    for (size_t i = 0; i < length; i++) {
        h += static_cast<unsigned char>(text[i]);
        h += h << 10;
        h ^= h >> 6;
    }
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
}

}  // namespace vokt

#endif
