// SPDX-License-Identifier: MIT
// The process-wide log: one file, appended a whole line at a time under one recursive
// mutex, configured from the environment at the first call and kept small by cutting
// it back to its newest whole lines.
#include "vokt/diag/log.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include "vokt/diag/error.h"
#include "vokt/internal/alloc.h"
#include "vokt/internal/errors.h"
#include "vokt/internal/hooks.h"
#include "vokt/internal/fork.h"
#include "vokt/internal/scope.h"
#include "vokt/sync/vokt_sync.h"
#include "vokt/text/string.h"

namespace {

constexpr char kDefaultPath[] = "vokt.log";
constexpr int kOpenAttempts = 10;
constexpr int kSizeCheckSeconds = 60;
// A failed allocation is logged, and logging allocates: under persistent failure the
// chain of reports stops at this depth.
constexpr int kMaxDepth = 4;

Mutex g_mutex = {PTHREAD_MUTEX_INITIALIZER, 0, 0};
int32_t g_configuredLevel = -1;
int32_t g_threshold = -1;
int32_t g_firstLevelSet = 1;
int32_t g_maxSizeKB = 128;
int64_t g_lastSizeCheck = 1;
int32_t g_echoStderr = 0;
int32_t g_echoStdout = 0;
String *g_logPath = nullptr;
// Read on every log call: initial-exec keeps it one move away instead of two calls into
// the dynamic loader (a few bytes of the static TLS surplus that dlopen allows for).
[[gnu::tls_model("initial-exec")]] thread_local int t_depth = 0;

// The threshold is also read without the lock (Log_GetLevel).
int32_t Threshold() { return __atomic_load_n(&g_threshold, __ATOMIC_RELAXED); }
void SetThreshold(int32_t level) { __atomic_store_n(&g_threshold, level, __ATOMIC_RELAXED); }

const char *LogPath() { return g_logPath && g_logPath->string ? g_logPath->string : kDefaultPath; }

void ReadEnvironment() {
    // Read under the log mutex; the runtime never changes its own environment.
    const char *debug = getenv("VOKT_DEBUG");      // NOLINT(concurrency-mt-unsafe)
    const char *logging = getenv("VOKT_LOGGING");  // NOLINT(concurrency-mt-unsafe)
    if (debug && debug[0] != '\0') {
        g_configuredLevel = 100;
        g_echoStderr = 1;
        if (strcmp(debug, "1") != 0) vokt::DropError(Log_SetFile(debug));
    } else if (logging) {
        // Text that is not a number means level 0, as atol has always read it.
        g_configuredLevel = static_cast<int32_t>(atol(logging));  // NOLINT(cert-err34-c)
    } else {
        g_configuredLevel = 0;
    }
    if (g_configuredLevel > Threshold()) SetThreshold(g_configuredLevel);
}

// A stdio file closed, and a block released, when the scope ends.
class File {
public:
    explicit File(FILE *f) : f_(f) {}
    ~File() { Close(); }
    operator FILE *() const { return f_; }
    void Close() {
        if (f_) fclose(f_);
        f_ = nullptr;
    }
    File(const File &) = delete;
    File &operator=(const File &) = delete;

private:
    FILE *f_;
};

class Buffer {
public:
    explicit Buffer(void *p) : p_(static_cast<char *>(p)) {}
    ~Buffer() { Release(); }
    operator char *() const { return p_; }
    void Release() {
        vokt::Free(p_);
        p_ = nullptr;
    }
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;

private:
    char *p_;
};

// Cuts the file back to the whole lines of its newest half once it outgrows the limit;
// looked at no more than once a minute. Failures leave the file as it is, unreported.
void CheckSize() {
    vokt::MutexGuard lock(&g_mutex);
    const int64_t now = time(nullptr);
    if (g_lastSizeCheck == 0) {
        g_lastSizeCheck = now - 30;
        return;
    }
    if (now - g_lastSizeCheck < kSizeCheckSeconds) return;
    g_lastSizeCheck = now;

    const char *path = LogPath();
    struct stat info;
    const int64_t size = stat(path, &info) == 0 ? info.st_size : 0;
    const int32_t limit = static_cast<int32_t>(static_cast<int64_t>(g_maxSizeKB) * 1024);
    if (size <= limit) return;

    // Every way out closes what is open and releases the kept bytes.
    File in(fopen(path, "rbe"));
    if (!in || fseek(in, -static_cast<long>(limit / 2), SEEK_END) != 0) return;
    int c;
    while ((c = fgetc(in)) != EOF && c != '\n') {
    }
    const long start = ftell(in);
    if (c == EOF || start < 0 || fseek(in, 0, SEEK_END) != 0) return;
    const long keep = ftell(in) - start;
    if (keep <= 0 || fseek(in, start, SEEK_SET) != 0) return;
    Buffer kept(vokt::Alloc(static_cast<size_t>(keep)));
    if (!kept || fread(kept, 1, static_cast<size_t>(keep), in) != static_cast<size_t>(keep)) return;
    in.Close();
    File out(fopen(path, "wbe"));
    if (!out) return;
    fwrite(kept, 1, static_cast<size_t>(keep), out);
    kept.Release();
    // The notice goes out before the rewritten file is closed. The kept lines are flushed
    // first so that the notice lands after them rather than under them.
    fflush(out);
    Log_Write(25, "Logfile truncated from %ld bytes to %ld bytes", static_cast<long>(size), keep);
}

// Appends one line with a single write; ten attempts to open, with short pauses.
void AppendToFile(const iovec *parts, int count) {
    int fd = -1;
    for (int attempt = 0; attempt < kOpenAttempts; attempt++) {
        fd = open(LogPath(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
        if (fd >= 0) break;
        usleep(static_cast<useconds_t>(attempt / 3) * 1000);
    }
    if (fd < 0) return;  // the line is dropped: there is nowhere left to report it
    ssize_t written = writev(fd, parts, count);
    (void)written;
    close(fd);
}

void Echo(FILE *stream, const char *prefix, const String *message, int32_t code) {
    if (!stream || feof(stream) || ferror(stream)) return;
    if (code == 0)
        fprintf(stream, "%s%s\n", prefix, message->string);
    else
        fputs("ERROR FORMATTING LOG LINE", stream);  // no line end, as tools expect
    fflush(stream);
}

class DepthGuard {
public:
    DepthGuard() { t_depth++; }
    ~DepthGuard() { t_depth--; }
    DepthGuard(const DepthGuard &) = delete;
    DepthGuard &operator=(const DepthGuard &) = delete;
};

}  // namespace

extern "C" {

int32_t Log_Write(int32_t level, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int32_t code = Log_WriteV(level, format, args);
    va_end(args);
    return code;
}

int32_t Log_WriteV(int32_t level, const char *format, va_list args) {
    if (t_depth >= kMaxDepth) return -2;
    DepthGuard depth;
    vokt::Scoped<String> message(String_New());
    if (!message) return -2;

    vokt::MutexGuard lock(&g_mutex);
    const int32_t echoStdout = g_echoStdout;
    if (g_configuredLevel == -1) ReadEnvironment();
    if (level > Threshold()) return 0;

    CheckSize();

    time_t now = time(nullptr);
    if (now == static_cast<time_t>(-1)) fprintf(stderr, "ERROR: Unable to get time due to error %d\n", errno);
    tm local{};
    if (!localtime_r(&now, &local)) {
        const time_t zero = 0;
        localtime_r(&zero, &local);
    }
    // The prefix is cut at 63 characters, as lines have always been written.
    constexpr size_t kPrefixLimit = 63;
    char prefix[160];
    const int stamp = snprintf(prefix, sizeof prefix, "%02d/%02d/%04d %02d:%02d:%02d", local.tm_mday,
                               local.tm_mon + 1, local.tm_year + 1900, local.tm_hour, local.tm_min, local.tm_sec);
    char *tail = prefix + stamp;
    const size_t room = sizeof prefix - static_cast<size_t>(stamp);
    if (Threshold() >= 100)
        // The thread identifier is printed as the pointer it is on this platform.
        snprintf(tail, room, " t%p : ", reinterpret_cast<void *>(Thread_GetCurrentThreadID()));  // NOLINT(performance-no-int-to-ptr)
    else
        snprintf(tail, room, ": ");
    prefix[kPrefixLimit] = '\0';

    const int32_t code = String_VFormat(message.get(), format, args);

    static char kNoMemory[] = "INSUFFICIENT FREE MEMORY TO MAINTAIN LOGFILE\n";
    static char kBadFormat[] = "UNEXPECTED ERROR WHEN FORMATTING LINE FOR LOGFILE\n";
    static char kNewline[] = "\n";
    if (code == 0) {
        const iovec line[3] = {{prefix, strlen(prefix)}, {message->string, static_cast<size_t>(message->length)}, {kNewline, 1}};
        AppendToFile(line, 3);
    } else {
        char *text = code == -2 ? kNoMemory : kBadFormat;
        const iovec line[1] = {{text, strlen(text)}};
        AppendToFile(line, 1);
    }
    if (g_echoStderr) Echo(stderr, prefix, message.get(), code);
    if (echoStdout) Echo(stdout, prefix, message.get(), code);
    vokt::DropError(code);
    return 0;
}

int32_t Log_Debug(const char *format, ...) {
    va_list args;
    va_start(args, format);
    Log_WriteV(100, format, args);
    va_end(args);
    return 0;
}

int32_t Log_SetFile(const char *path) {
    vokt::MutexGuard lock(&g_mutex);
    if (!path) {
        // (extension) NULL goes back to the default file.
        Object_Destroy(g_logPath);
        g_logPath = nullptr;
        return 0;
    }
    vokt::KeptForProcess kept;  // the log's own state, never reported as a leak
    if (!g_logPath) g_logPath = String_New();
    const int32_t code = g_logPath ? String_Set(g_logPath, path) : -2;
    if (code != 0) {
        Object_Destroy(g_logPath);
        g_logPath = nullptr;
    }
    return code;
}

void Log_SetLevel(int32_t level) {
    vokt::MutexGuard lock(&g_mutex);
    if (g_firstLevelSet == 1) {
        g_firstLevelSet = 0;
        SetThreshold(level);
    } else if (level > Threshold()) {
        SetThreshold(level);
    }
}

void Log_SetInitialLevel(int32_t level) {
    vokt::MutexGuard lock(&g_mutex);
    if (g_firstLevelSet == 1) SetThreshold(level);
}

void Log_SetMaxSize(int32_t kb) {
    vokt::MutexGuard lock(&g_mutex);
    g_maxSizeKB = kb < 2 ? 2 : kb;
}

void Log_SetEcho(int32_t flag) {
    vokt::MutexGuard lock(&g_mutex);
    g_echoStdout = flag;
}

int32_t Log_GetLevel(void) { return Threshold(); }

// The mutex is statically initialised, so it is ready before any call, and it is never
// initialised again: a thread that logged before start-up may be holding it, and a second
// initialisation would break that hold (and every lock after it).
void Log_Init(void) {}

void Log_Shutdown(void) {
    Mutex_Lock(&g_mutex);
    Mutex_Unlock(&g_mutex);
    Object_Destroy(g_logPath);
    // Cleared as well, so that a stray late call falls back to the default file
    // instead of reading a released name.
    g_logPath = nullptr;
    Mutex_Destroy(&g_mutex);
}

}  // extern "C"

namespace vokt {
void LogForkPrepare() { Mutex_Lock(&g_mutex); }
void LogForkRelease() { Mutex_Unlock(&g_mutex); }
}  // namespace vokt
