// SPDX-License-Identifier: MIT
// Private: the error-code convention of the modules. A file that uses VOKT_TRY defines
// `constexpr char kModule[]` first.
#ifndef VOKT_INTERNAL_ERRORS_H
#define VOKT_INTERNAL_ERRORS_H

#include "vokt/diag/error.h"

namespace vokt {
// Error references are traced with the place that passes them on; -1 goes back as -1.
// Returns true when the caller must return `code` unchanged.
inline bool Failed(int32_t code, const char *module, int line) {
    if (code == 0) return false;  // success: no reference to look up
    if (ErrorStore_IsError(code)) {
        Error_Trace(code, module, line);
        return true;
    }
    return code == -1;
}

// Takes a stored error out of the store and frees it; other codes are left alone.
inline void DropError(int32_t code) {
    if (code != 0 && ErrorStore_IsError(code)) Error_Free(ErrorStore_Take(code));
}

// Registers a newly made Error and returns its reference; -2 (with the Error released)
// when it could not be made or stored.
inline int32_t StoreError(Error *e) {
    const int32_t ref = ErrorStore_Register(e);
    if (ref == -2) Error_Free(e);
    return ref;
}
}  // namespace vokt

#define VOKT_TRY(expr)                                                   \
    do {                                                                 \
        const int32_t vokt_code_ = (expr);                               \
        if (vokt::Failed(vokt_code_, kModule, __LINE__)) return vokt_code_; \
    } while (0)

#endif
