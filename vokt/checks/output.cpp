// SPDX-License-Identifier: MIT
// The reports' JSON form (VOKT_CHECK_OUTPUT): one object per report and per line, for
// programs that read them, such as a CI job. Written next to the text, never instead.
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "vokt/checks/internal/common.h"
#include "vokt/checks/internal/json.h"

namespace vokt {

namespace {

int g_outputFd = -1;


constexpr const char *kFieldNames[kFields] = {"classes", "counts", "bytes", "mutexes", "threads", "sites"};

// Writes all of n bytes, through interruptions and partial writes.
void WriteAll(int fd, const char *bytes, size_t n) {
    while (n > 0) {
        const ssize_t done = write(fd, bytes, n);
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return;
        bytes += done, n -= static_cast<size_t>(done);
    }
}

}  // namespace

void OpenOutput(const char *path) {
    g_outputFd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (g_outputFd >= 0) return;
    const char *why = strerror(errno);  // NOLINT(concurrency-mt-unsafe): read once at load, before any thread of the library's
    Line("setting", 600).Add("VOKT_CHECK_OUTPUT: cannot open \"%.400s\" (%s); reports are not written to it", path, why).Send();
}

bool WritingJson() { return g_outputFd >= 0; }


// NOLINTNEXTLINE(cert-dcl50-cpp): printf-style, so that the compiler checks each format
void Line::Put(Field field, const char *format, ...) {
    if (!json_) return;
    const auto f = static_cast<uint32_t>(field);
    char *array = json_ + f * jsonRoom_;
    size_t &used = jsonUsed_[f];
    if (used + 2 >= jsonRoom_) return;
    if (used) array[used++] = ',';
    va_list args;
    va_start(args, format);
    const int n = vsnprintf(array + used, jsonRoom_ - used, format, args);
    va_end(args);
    if (n < 0 || used + static_cast<size_t>(n) >= jsonRoom_) {  // cut: the value is left out whole
        array[used ? --used : used] = '\0';
        return;
    }
    used += static_cast<size_t>(n);
}

Line &Line::Note(Field field, const char *text) {
    if (!json_) return *this;
    char quoted[1200];
    checks::JsonString(quoted, sizeof quoted, text, strlen(text));
    Put(field, "%s", quoted);
    return *this;
}

Line &Line::Note(Field field, uint64_t number) {
    Put(field, "%llu", static_cast<unsigned long long>(number));
    return *this;
}

Line &Line::NoSite() {
    Put(Field::kSites, "null");
    return *this;
}


// A site's frames as a JSON array, made in memory of its own.
void Line::PutFrames(const char *text) {
    if (!json_) return;
    constexpr size_t kRoom = size_t{32} * 1024;  // a site's text is at most 4 KiB: 6 bytes a character at worst
    auto *out = static_cast<char *>(MapZeroed(kRoom));
    if (!out) return;
    checks::FramesAsJson(text, out, kRoom);
    Put(Field::kSites, "%s", out);
    Unmap(out, kRoom);
}

// {"kind":"leaks","pid":123,"text":"...","classes":[...],...}, written in one piece so that
// the reports of several processes appending to one file stay whole lines.
void Line::WriteJson() {
    if (!json_ || g_outputFd < 0) return;
    const char *text = text_ + strlen("vokt: ");
    const size_t room = kFields * (jsonRoom_ + 16) + 6 * used_ + 256;
    auto *out = static_cast<char *>(MapZeroed(room));
    if (!out) return;
    checks::JsonBuilder b{out, room, 0};
    char head[96];
    snprintf(head, sizeof head, "{\"kind\":\"%s\",\"pid\":%d,\"text\":", kind_, static_cast<int>(getpid()));
    b.Raw(head);
    b.Quoted(text, strlen(text));
    for (uint32_t f = 0; f < kFields; f++) {
        if (!jsonUsed_[f]) continue;
        b.Raw(",\""), b.Raw(kFieldNames[f]), b.Raw("\":["), b.Raw(json_ + f * jsonRoom_), b.Raw("]");
    }
    b.Raw("}\n");
    WriteAll(g_outputFd, out, b.used);
    Unmap(out, room);
}

}  // namespace vokt
