// SPDX-License-Identifier: MIT
// Handle objects: a descriptor or a stdio file with the object shape, closed by Destroy.
#include "vokt/text/handles.h"

#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "vokt/internal/alloc.h"
#include "vokt/internal/assert.h"

namespace {

constexpr char kModule[] = "handles";

const ClassDescriptor kSocketClass = {
    sizeof(Socket), "Socket", +[](void *o) { Socket_Destroy(static_cast<Socket *>(o)); }, nullptr, nullptr, nullptr,
};
const ClassDescriptor kStreamHandleClass = {
    sizeof(StreamHandle), "StreamHandle", +[](void *o) { StreamHandle_Destroy(static_cast<StreamHandle *>(o)); },
    nullptr,              nullptr,        nullptr,
};
const ClassDescriptor kFileHandleClass = {
    sizeof(FileHandle), "FileHandle", +[](void *o) { FileHandle_Destroy(static_cast<FileHandle *>(o)); },
    nullptr,            nullptr,      nullptr,
};

// Socket and StreamHandle share their shape and their release.
template <typename Handle>
void CloseAndFree(Handle *s) {
    if (s->fd >= 0) close(s->fd);
    vokt::Free(s);
}

// fopen with close-on-exec added to the caller's mode ('e'), so that the descriptor never
// leaks into a program that another thread starts.
FILE *OpenClosedOnExec(const char *path, const char *mode) {
    char withCloexec[16];
    const size_t n = strlen(mode);
    if (strchr(mode, 'e') || n + 2 > sizeof withCloexec) {
        FILE *fp = fopen(path, mode);
        if (fp) fcntl(fileno(fp), F_SETFD, FD_CLOEXEC);
        return fp;
    }
    memcpy(withCloexec, mode, n);
    withCloexec[n] = 'e';
    withCloexec[n + 1] = '\0';
    return fopen(path, withCloexec);
}

}  // namespace

extern "C" {

Socket *Socket_New(int32_t domain, int32_t type, int32_t protocol) {
    auto *s = vokt::New<Socket>(&kSocketClass, "Socket s");
    if (s) s->fd = socket(domain, type | SOCK_CLOEXEC, protocol);
    return s;
}

void Socket_Destroy(Socket *s) {
    VOKT_ASSERT_OR_RETURN(s!=NULL);
    if (vokt::DestroyedAgain(s, &kSocketClass)) return;  // destroyed before: reported, nothing released
    CloseAndFree(s);
}

StreamHandle *StreamHandle_New(int32_t fd) {
    auto *s = vokt::New<StreamHandle>(&kStreamHandleClass, "StreamHandle s");
    if (s) s->fd = fd;
    return s;
}

void StreamHandle_Destroy(StreamHandle *s) {
    VOKT_ASSERT_OR_RETURN(s!=NULL);
    if (vokt::DestroyedAgain(s, &kStreamHandleClass)) return;  // destroyed before: reported, nothing released
    CloseAndFree(s);
}

FileHandle *FileHandle_New(const char *path, const char *mode) {
    auto *s = vokt::New<FileHandle>(&kFileHandleClass, "FileHandle s");
    if (s) s->fp = path && mode ? OpenClosedOnExec(path, mode) : nullptr;
    return s;
}

void FileHandle_Destroy(FileHandle *s) {
    VOKT_ASSERT_OR_RETURN(s!=NULL);
    if (vokt::DestroyedAgain(s, &kFileHandleClass)) return;  // destroyed before: reported, nothing released
    if (s->fp) fclose(s->fp);
    vokt::Free(s);
}

}  // extern "C"
