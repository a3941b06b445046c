// SPDX-License-Identifier: MIT
// Errors: assertion reports, Error records, the process-wide error store addressed by
// 32-bit references, and the texts of socket and resolver error numbers.
#include "vokt/diag/error.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "vokt/diag/log.h"
#include "vokt/internal/alloc.h"
#include "vokt/internal/errors.h"
#include "vokt/internal/classes.h"
#include "vokt/internal/fork.h"
#include "vokt/internal/scope.h"

namespace {

constexpr char kModule[] = "error";
constexpr int32_t kIndexMask = 0x3FFFFFFF;
constexpr int32_t kCodeOutOfMemory = 997;
constexpr int32_t kCodeNetwork = 998;
constexpr int32_t kCodeInternal = 999;
constexpr int32_t kDefaultPriority = 100;
constexpr int kDenseCodes = 104;
constexpr int kMaxCodePriorities = 64;

const ClassDescriptor kErrorClass = {
    sizeof(Error), "Error", +[](void *o) { Error_Free(static_cast<Error *>(o)); }, nullptr, nullptr, nullptr,
};

// The out-of-memory record is static so that reporting it never needs memory.
char g_oomText[] = "VOKT Out of memory";
String g_oomString = {&vokt::kStringClass, 1, g_oomText, 18};
Error g_outOfMemory = {&kErrorClass, &g_oomString, &g_oomString, 1, kCodeOutOfMemory, 0, 101, 1};

Mutex g_storeMutex = {PTHREAD_MUTEX_INITIALIZER, 0, 0};
Vector *global_error_store = nullptr;
uint64_t g_errorCount = 0;

struct CodePriority {
    int32_t code;
    int32_t priority;
};
int32_t g_priorities[kDenseCodes];
bool g_prioritiesSet = false;
CodePriority g_codePriorities[kMaxCodePriorities];
int g_codePriorityCount = 0;

int32_t PriorityOf(int32_t code) {
    vokt::MutexGuard lock(&g_storeMutex);
    if (static_cast<uint32_t>(code) < kDenseCodes) return g_prioritiesSet ? g_priorities[code] : kDefaultPriority;
    for (int i = 0; i < g_codePriorityCount; i++)
        if (g_codePriorities[i].code == code) return g_codePriorities[i].priority;
    return code == kCodeNetwork ? 99 : kDefaultPriority;
}

// The reference checks, gathered under the store lock and reported after it is released
// so that the store never takes the log mutex while holding its own.
enum : unsigned { kNotComplex = 1, kNoStore = 2, kIndexOutOfRange = 4, kEmptySlot = 8 };

struct Lookup {
    unsigned failed = 0;
    int64_t index = -1;
    Error *error = nullptr;
};

Lookup LookUpLocked(int32_t ref) {
    Lookup found;
    found.index = static_cast<int64_t>(ref & kIndexMask) - 1;
    if ((ref & ERROR_COMPLEX_BIT) != ERROR_COMPLEX_BIT) found.failed |= kNotComplex;
    const int64_t length = global_error_store ? global_error_store->size : 0;
    if (!global_error_store) found.failed |= kNoStore;
    if (!(found.index < length)) found.failed |= kIndexOutOfRange;
    if (found.index >= 0 && found.index < length) found.error = reinterpret_cast<Error *>(global_error_store->data[found.index]);
    if (!found.error) found.failed |= kEmptySlot;
    return found;
}

void ReportLookup(unsigned failed) {
    if (failed & kNotComplex) Assert_Fail("(ref & ERROR_COMPLEX_BIT) == ERROR_COMPLEX_BIT", kModule, __LINE__);
    if (failed & kNoStore) Assert_Fail("global_error_store != NULL", kModule, __LINE__);
    if (failed & kIndexOutOfRange) Assert_Fail("index < Vector_Length( global_error_store )", kModule, __LINE__);
    if (failed & kEmptySlot) Assert_Fail("Vector_GetAt( global_error_store, index ) != NULL", kModule, __LINE__);
}

// Where ErrorStore_Register put an Error.
struct Placement {
    int32_t ref = -2;
    bool noHole = false;     // the count promised a hole that is not there
    bool needStore = false;  // there is no store and no spare to install
};

// Under the store lock: e into the first hole, or at the end. A missing store is replaced
// by spare (which is then taken); without a spare, nothing is done and a store is asked for.
Placement Place(Error *e, Vector *&spare) {
    vokt::MutexGuard lock(&g_storeMutex);
    if (!global_error_store) {
        if (!spare) return {-2, false, true};
        global_error_store = spare;
        spare = nullptr;
        g_errorCount = 0;
    }
    Vector *store = global_error_store;
    if (static_cast<uint64_t>(store->size) > g_errorCount) {
        int64_t i = 0;
        while (i < store->size && store->data[i]) i++;
        if (i == store->size) return {-2, true, false};
        store->data[i] = reinterpret_cast<Object *>(e);
        g_errorCount++;
        return {static_cast<int32_t>(i + 1) + ERROR_COMPLEX_BIT, false, false};
    }
    if (!Vector_Add(store, e)) return {};
    g_errorCount++;
    return {static_cast<int32_t>(store->size) + ERROR_COMPLEX_BIT, false, false};
}

bool TraceEnabled() {
    const int32_t level = Log_GetLevel();
    return level == 100 || level == -1;
}

const char *MessageText(const Error *e) {
    return e && e->message && e->message->string ? e->message->string : "";
}

Error *NewError(int32_t friendly, int32_t code, const char *format, va_list args) {
    auto *error = vokt::New<Error>(&kErrorClass, "Error error");
    if (!error) return nullptr;
    error->bStatic = 0;
    vokt::OwnedBy mine(error);
    error->message = String_New();
    error->priority = kDefaultPriority;
    error->detail = nullptr;
    error->bFriendly = friendly;
    error->code = code;
    error->systemError = 0;
    if (error->message) {
        const int32_t rc = format ? String_VFormat(error->message, format, args) : -1;
        if (rc != 0) {
            vokt::DropError(rc);
            String_Destroy(error->message);
            error->message = nullptr;
        }
    }
    if (!error->message) {
        fprintf(stderr, "Unable to generate VOKT error description '%s'\n", format ? format : "(null)");
        vokt::Free(error);
        return nullptr;
    }
    if (friendly) error->priority = PriorityOf(code);
    // Only at exactly the debug level (or before the log has been configured); a higher
    // threshold keeps these traces out, as it always has.
    if (TraceEnabled())
        Log_Debug(friendly ? "Created friendly error %s" : "Created internal error %s", error->message->string);
    return error;
}

struct NetErrorText {
    int32_t number;
    const char *name;
    const char *text;
    int32_t level;
};

constexpr char kTooMany[] = "There may be too many files, sockets or resources in use on your machine.";
constexpr NetErrorText kNetErrors[] = {
    {1, "HOST_NOT_FOUND", "", 50},
    {2, "TRY_AGAIN", "", 50},
    {3, "NO_RECOVERY", "", 50},
    {4, "NO_DATA", "", 50},
    {9, "EBADF", "", 50},
    {11, "EAGAIN", "", 50},
    {12, "ENOMEM", "", 50},
    {13, "EACCES", "", 50},
    {14, "EFAULT", "", 50},
    {22, "EINVAL", "", 50},
    {23, "ENFILE", kTooMany, 25},
    {24, "EMFILE", kTooMany, 25},
    {32, "EPIPE", "Connection closed", 50},
    {71, "EPROTO", "", 50},
    {88, "ENOTSOCK", "", 50},
    {89, "EDESTADDRREQ", "", 50},
    {90, "EMSGSIZE", "", 50},
    {95, "EOPNOTSUPP", "", 50},
    {97, "EAFNOSUPPORT", "", 50},
    {98, "EADDRINUSE", "", 50},
    {101, "ENETUNREACH", "Target network is unreachable", 25},
    {104, "ECONNRESET", "Connection reset by peer", 25},
    {105, "ENOBUFS", "Output queue full", 25},
    {106, "EISCONN", "", 50},
    {107, "ENOTCONN", "", 50},
    {110, "ETIMEDOUT", "Timeout from remote connection", 25},
    {111, "ECONNREFUSED", "Connection refused", 25},
    {114, "EALREADY", "", 50},
    {115, "EINPROGRESS", "", 50},
};

// Copies at most length bytes of text into out, zeroing the rest of it; the last byte is
// always a terminator, so a text that does not fit is cut.
void CopyBounded(char *out, int32_t length, const char *text) {
    if (!out || length <= 0) return;
    const size_t room = static_cast<size_t>(length);
    const size_t n = strnlen(text, room);
    memcpy(out, text, n);
    memset(out + n, 0, room - n);
    out[room - 1] = '\0';
}

}  // namespace

extern "C" {

void Assert_Fail(const char *condition, const char *module, int32_t line) {
    // The log ends the line itself, so each report is followed by an empty line.
    Log_Write(0, "Assertion failed: %s in file %s on line %d\n", condition, module, line);
}

Error *Error_NewFriendly(int32_t code, const char *format, ...) {
    va_list args;
    va_start(args, format);
    Error *e = NewError(1, code, format, args);
    va_end(args);
    return e;
}

Error *Error_NewInternal(const char *format, ...) {
    va_list args;
    va_start(args, format);
    Error *e = NewError(0, kCodeInternal, format, args);
    va_end(args);
    return e;
}

Error *Error_NewNetwork(int32_t number, const char *operation) {
    if (number == 0) return nullptr;
    if (!operation) operation = "";
    char name[128];
    char text[256];
    int32_t level = 50;
    NetError_Describe(number, name, sizeof name, text, sizeof text, &level);
    Error *e = nullptr;
    if (text[0] != '\0') {
        e = Error_NewFriendly(kCodeNetwork,
                              "Encountered network error: %s.  (Technical information: error %s (%d) while executing %s)",
                              text, name, number, operation);
        if (e) {
            vokt::OwnedBy mine(e);
            e->detail = String_NewFromChars(text);
            e->systemError = number;
        }
        return e;
    }
    constexpr char kFormat[] = "Encountered network error %d (%s) when executing '%s'.";
    if (Log_GetLevel() < level)
        e = Error_NewInternal(kFormat, number, name, operation);
    else
        e = Error_NewFriendly(kCodeNetwork, kFormat, number, name, operation);
    if (e) e->systemError = number;
    return e;
}

void Error_Free(Error *e) {
    if (vokt::DestroyedAgain(e, &kErrorClass)) return;  // destroyed before: reported, nothing released
    if (!e || e->bStatic) return;
    Object_Destroy(e->message);
    Object_Destroy(e->detail);
    vokt::Free(e);
}

int32_t ErrorStore_Register(Error *e) {
    if (!e || e->bStatic) return -2;
    Vector *spare = nullptr;
    vokt::KeptForProcess kept;  // the store's table lives as long as the process
    Placement placed = Place(e, spare);
    if (placed.needStore) {
        // The store is made outside the lock: a failure here is logged, and the log must
        // never be entered while the store's lock is held. With a spare in hand, the
        // second placement always completes.
        spare = Vector_NewOwning();
        if (!spare) return -2;
        placed = Place(e, spare);
    }
    if (spare) Vector_Free(spare);  // another thread's store came first
    if (placed.noHole) Assert_Fail("i != -1", kModule, __LINE__);
    return placed.ref;
}

int32_t ErrorStore_IsError(int32_t ref) {
    if (ref == -2) return 1;
    if ((ref & ERROR_COMPLEX_BIT) == 0) return 0;
    vokt::MutexGuard lock(&g_storeMutex);
    const int64_t index = static_cast<int64_t>(ref & kIndexMask) - 1;
    return global_error_store && index >= 0 && index < global_error_store->size && global_error_store->data[index]
               ? 1
               : 0;
}

Error *ErrorStore_Get(int32_t ref) {
    if (ref == -2) return &g_outOfMemory;
    Lookup found;
    {
        vokt::MutexGuard lock(&g_storeMutex);
        found = LookUpLocked(ref);
    }
    ReportLookup(found.failed);
    return found.error;
}

Error *ErrorStore_Take(int32_t ref) {
    if (ref == -2) return &g_outOfMemory;
    Lookup found;
    Vector *emptied = nullptr;
    {
        vokt::MutexGuard lock(&g_storeMutex);
        found = LookUpLocked(ref);
        Vector *store = global_error_store;
        // A reference that names no stored error (taken already, or never issued) is
        // reported and changes nothing: the count stays the number of errors held, so a
        // caller's mistake can never free the store under errors that others still hold.
        if (found.failed == 0) {
            if (found.index == store->size - 1)
                Vector_RemoveAt(store, found.index);
            else
                store->data[found.index] = nullptr;  // a hole, filled by a later registration
            g_errorCount--;
        }
        if (g_errorCount == 0 && store) {
            emptied = store;
            global_error_store = nullptr;
        }
    }
    if (emptied) Vector_Free(emptied);
    ReportLookup(found.failed);
    return found.error;
}

void ErrorStore_Check(int32_t ref) {
    if (ref == -2) return;
    unsigned failed;
    {
        vokt::MutexGuard lock(&g_storeMutex);
        failed = LookUpLocked(ref).failed;
    }
    ReportLookup(failed);
}

int32_t ErrorStore_Combine(int32_t a, int32_t b) {
    if (a == 0) return b;
    if (b == 0 || a == b) return a;  // an error combined with itself survives whole
    const Error *ea = ErrorStore_Get(a);
    const Error *eb = ErrorStore_Get(b);
    if (!eb) return a;
    if (!ea) return b;
    if (eb->priority <= ea->priority) {
        vokt::DropError(b);
        return a;
    }
    vokt::DropError(a);
    return b;
}

void Error_Trace(int32_t ref, const char *module, int32_t line) {
    if (!ErrorStore_IsError(ref) || !TraceEnabled()) return;
    const Error *e = ErrorStore_Get(ref);
    if (!e) return;
    Log_Debug("%s:%d - Error code %d: %s", module ? module : "", line, e->code, MessageText(e));
}

void NetError_Describe(int32_t number, char *name, int32_t nameLength, char *text, int32_t textLength,
                       int32_t *level) {
    const NetErrorText *found = nullptr;
    for (const auto &entry : kNetErrors)
        if (entry.number == number) found = &entry;
    const char *foundName = found ? found->name : "";
    if (name && nameLength > 0) {
        if (foundName[0] != '\0')
            CopyBounded(name, nameLength, foundName);
        else
            snprintf(name, static_cast<size_t>(nameLength), "%d", number);
    }
    CopyBounded(text, textLength, found ? found->text : "");
    if (level) *level = found ? found->level : 50;
}

// The store's mutex is statically initialised and never initialised again (see Log_Init).
void ErrorStore_Init(void) {}

void ErrorStore_Shutdown(void) {
    Vector *store;
    {
        vokt::MutexGuard lock(&g_storeMutex);
        store = global_error_store;
        global_error_store = nullptr;
        g_errorCount = 0;
    }
    if (store) Vector_Free(store);
    Mutex_Destroy(&g_storeMutex);
}

void Error_SetPriorityTable(const int32_t table[104]) {
    vokt::MutexGuard lock(&g_storeMutex);
    g_prioritiesSet = table != nullptr;
    if (table) memcpy(g_priorities, table, sizeof g_priorities);
}

void Error_SetCodePriority(int32_t code, int32_t priority) {
    vokt::MutexGuard lock(&g_storeMutex);
    if (static_cast<uint32_t>(code) < kDenseCodes) {
        if (!g_prioritiesSet) {
            for (auto &p : g_priorities) p = kDefaultPriority;
            g_prioritiesSet = true;
        }
        g_priorities[code] = priority;
        return;
    }
    for (int i = 0; i < g_codePriorityCount; i++) {
        if (g_codePriorities[i].code == code) {
            g_codePriorities[i].priority = priority;
            return;
        }
    }
    if (g_codePriorityCount < kMaxCodePriorities) g_codePriorities[g_codePriorityCount++] = {code, priority};
}

}  // extern "C"

namespace vokt {
void ErrorStoreForkPrepare() { Mutex_Lock(&g_storeMutex); }
void ErrorStoreForkRelease() { Mutex_Unlock(&g_storeMutex); }
}  // namespace vokt
