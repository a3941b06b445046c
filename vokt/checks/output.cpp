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

size_t JsonString(char *out, size_t room, const char *text, size_t length) {
    if (room < 3) return 0;
    size_t used = 0;
    out[used++] = '"';
    for (size_t i = 0; i < length && used + 8 < room; i++) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c == '"' || c == '\\')
            out[used++] = '\\', out[used++] = static_cast<char>(c);
        else if (c < 0x20)
            used += static_cast<size_t>(snprintf(out + used, room - used, "\\u%04x", c));
        else
            out[used++] = static_cast<char>(c);
    }
    out[used++] = '"';
    out[used] = '\0';
    return used;
}

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
    JsonString(quoted, sizeof quoted, text, strlen(text));
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

namespace {

// Text built in a fixed room: what does not fit is cut, never written past the end.
struct Builder {
    char *out;
    size_t room, used;
    void Raw(const char *text) {
        const size_t n = strnlen(text, room - used - 1);
        memcpy(out + used, text, n);
        used += n;
        out[used] = '\0';
    }
    void Quoted(const char *text, size_t length) { used += JsonString(out + used, room - used, text, length); }
};

}  // namespace

// A site's text, "f+0x2f (app, app.c:12) <- main+0x11 (app)", as an array of frames:
// {"function":"f","offset":"0x2f","module":"app","file":"app.c","line":12}.
void Line::PutFrames(const char *text) {
    if (!json_) return;
    constexpr size_t kRoom = size_t{32} * 1024;  // a site's text is at most 4 KiB: 6 bytes a character at worst
    Builder b{static_cast<char *>(MapZeroed(kRoom)), kRoom, 0};
    if (!b.out) return;
    b.Raw("[");
    for (const char *piece = text; piece && *piece;) {
        const char *next = strstr(piece, " <- ");
        const size_t length = next ? static_cast<size_t>(next - piece) : strlen(piece);
        // The module's group is the last " (" of the piece: C++ names may hold parentheses.
        size_t head = length;
        for (size_t i = 0; i + 1 < length; i++)
            if (piece[i] == ' ' && piece[i + 1] == '(') head = i;
        const bool grouped = head + 3 <= length && piece[length - 1] == ')';
        if (!grouped) head = length;
        size_t name = head;  // the function's name ends where its "+0x.." offset starts
        for (size_t i = 0; i + 2 < head; i++)
            if (piece[i] == '+' && piece[i + 1] == '0' && piece[i + 2] == 'x') name = i;
        b.Raw(piece == text ? "{" : ",{");
        if (name > 1 && piece[0] == '0' && piece[1] == 'x') {  // no name: the offset alone
            b.Raw("\"offset\":");
            b.Quoted(piece, name);
        } else {
            b.Raw("\"function\":");
            b.Quoted(piece, name);
            if (name < head) b.Raw(",\"offset\":"), b.Quoted(piece + name + 1, head - name - 1);
        }
        if (grouped) {
            const char *inner = piece + head + 2;
            const size_t innerLength = length - head - 3;
            const auto *comma = static_cast<const char *>(memmem(inner, innerLength, ", ", 2));
            const size_t moduleLength = comma ? static_cast<size_t>(comma - inner) : innerLength;
            b.Raw(",\"module\":");
            b.Quoted(inner, moduleLength);
            if (comma) {
                const char *place = comma + 2;
                const size_t placeLength = innerLength - moduleLength - 2;
                const auto *colon = static_cast<const char *>(memrchr(place, ':', placeLength));
                b.Raw(",\"file\":");
                b.Quoted(place, colon ? static_cast<size_t>(colon - place) : placeLength);
                const long line = colon ? strtol(colon + 1, nullptr, 10) : 0;
                char number[32];
                snprintf(number, sizeof number, ",\"line\":%ld", line);
                if (line > 0) b.Raw(number);
            }
        }
        b.Raw("}");
        piece = next ? next + 4 : nullptr;
    }
    b.Raw("]");
    Put(Field::kSites, "%s", b.out);
    Unmap(b.out, kRoom);
}

// {"kind":"leaks","pid":123,"text":"...","classes":[...],...}, written in one piece so that
// the reports of several processes appending to one file stay whole lines.
void Line::WriteJson() {
    if (!json_ || g_outputFd < 0) return;
    const char *text = text_ + strlen("vokt: ");
    const size_t room = kFields * (jsonRoom_ + 16) + 6 * used_ + 256;
    auto *out = static_cast<char *>(MapZeroed(room));
    if (!out) return;
    Builder b{out, room, 0};
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
