// SPDX-License-Identifier: MIT
// Streams: one line reader per source type, chosen when the stream is made, and logical
// lines joined across backslash continuations on top of them.
#include "vokt/text/stream.h"

#include <ctype.h>
#include <string.h>
#include <unistd.h>

#include "vokt/internal/alloc.h"
#include "vokt/internal/assert.h"
#include "vokt/internal/errors.h"
#include "vokt/internal/scope.h"
#include "vokt/internal/text.h"

namespace {

constexpr char kModule[] = "stream";
constexpr int kFileLineBuffer = 1024;

const ClassDescriptor kStreamClass = {
    sizeof(Stream), "Stream", +[](void *o) { Stream_Destroy(static_cast<Stream *>(o)); }, nullptr, nullptr, nullptr,
};

void SetLength(int32_t *length, int32_t value) {
    if (length) *length = value;
}

// Lines end at '\n' only; a '\r' stays part of the line.
int32_t ReadFromString(Stream *stream, String *line, int32_t *length) {
    VOKT_ASSERT(stream->type == STRING_STREAM);
    SetLength(length, 0);
    const int32_t n = String_Length(stream->string);
    if (stream->pos >= n) {
        stream->bEof = 1;
        return 0;
    }
    if (stream->bEof) return 0;
    const char *text = stream->string->string + stream->pos;
    const char *end = static_cast<const char *>(memchr(text, '\n', static_cast<size_t>(n - stream->pos)));
    const int32_t count = end ? static_cast<int32_t>(end - text) : n - stream->pos;
    if (count == 0) {
        stream->pos += 1;
        if (stream->pos < n)
            VOKT_TRY(String_Set(line, ""));
        else
            stream->bEof = 1;
        return 0;
    }
    VOKT_TRY(String_SetN(line, text, count));
    stream->pos += count + 1;
    SetLength(length, count);
    return 0;
}

// At most 1023 bytes a call: a longer physical line comes back in pieces.
int32_t ReadFromFile(Stream *stream, String *line, int32_t *length) {
    VOKT_ASSERT(stream->type == FILE_STREAM);
    SetLength(length, 0);
    if (stream->bEof) return 0;
    // fgets ends what it reads with a NUL, so the buffer needs no clearing; the text is
    // measured once and copied with that length.
    char buffer[kFileLineBuffer];
    if (!stream->file || !fgets(buffer, sizeof buffer, stream->file)) {
        stream->bEof = 1;
        buffer[0] = '\0';
    }
    size_t n = strlen(buffer);
    if (n > 0 && buffer[n - 1] == '\n') buffer[--n] = '\0';
    // A line String that String_Check would report goes through String_Set, which reports it.
    const bool whole = line && (line->bIsSet != 0) == (line->string != nullptr);
    VOKT_TRY(whole ? vokt::SetText(line, buffer, n) : String_Set(line, buffer));
    SetLength(length, static_cast<int32_t>(n));
    return 0;
}

// Lines of any length, read in 128-byte chunks; CR-LF is stripped and a last line
// without a line end is delivered before the end of input is reported.
int32_t ReadFromHandle(Stream *stream, String *line, int32_t *length) {
    VOKT_ASSERT(stream->type == HANDLE_STREAM);
    SetLength(length, 0);
    String_Reset(line);
    for (;;) {
        const char *from = stream->buffer + stream->bufPos;
        const auto *end = static_cast<const char *>(memchr(from, '\n', static_cast<size_t>(stream->bufLen - stream->bufPos)));
        if (end) {
            VOKT_TRY(String_AppendN(line, from, static_cast<int32_t>(end - from + 1)));
            stream->bufPos = static_cast<int32_t>(end - stream->buffer) + 1;
            String_ChompNewlines(line);
            SetLength(length, String_Length(line));
            return 0;
        }
        if (stream->bEof) break;
        if (stream->bufLen > stream->bufPos)
            VOKT_TRY(String_AppendN(line, from, stream->bufLen - stream->bufPos));
        // Interrupted reads are not retried: like errors, they end the input.
        const ssize_t got = read(stream->handle, stream->buffer, sizeof stream->buffer);
        if (got <= 0) {
            stream->bEof = 1;
            stream->bufLen = 0;
        } else {
            stream->bufLen = static_cast<int32_t>(got);
        }
        stream->bufPos = 0;
        if (stream->bEof) break;
    }
    if (String_Length(line) >= 1) stream->bEof = 0;
    SetLength(length, String_Length(line));
    return 0;
}

// The common first steps of every constructor: the record and its last-line String.
Stream *NewStream() {
    auto *stream = vokt::New<Stream>(&kStreamClass, "Stream stream");
    if (!stream) return nullptr;
    stream->type = 0;
    stream->readLine = nullptr;
    stream->bEof = 0;
    vokt::OwnedBy mine(stream);
    stream->lastLine = String_New();
    if (!stream->lastLine) {
        vokt::Free(stream);
        return nullptr;
    }
    return stream;
}

bool IsSpace(char c) { return isspace(static_cast<unsigned char>(c)) != 0; }

// Appends bytes from..to of text, trailing whitespace dropped, after one blank when both
// out and the segment have something.
int32_t AppendSegment(String *out, const char *text, size_t from, size_t to) {
    while (to > from && IsSpace(text[to - 1])) to--;
    if (String_Length(out) > 0 && to > from) VOKT_TRY(String_AppendChars(out, " "));
    VOKT_TRY(String_AppendN(out, text + from, static_cast<int32_t>(to - from)));
    return 0;
}

}  // namespace

extern "C" {

Stream *Stream_NewFromString(const char *chars) {
    Stream *stream = NewStream();
    if (!stream) return nullptr;
    stream->type = STRING_STREAM;
    stream->readLine = ReadFromString;
    vokt::OwnedBy mine(stream);
    stream->string = chars ? String_NewFromChars(chars) : String_New();
    stream->pos = 0;
    if (!stream->string) {
        Stream_Destroy(stream);
        return nullptr;
    }
    return stream;
}

Stream *Stream_NewFromFile(FILE *fp) {
    Stream *stream = NewStream();
    if (!stream) return nullptr;
    stream->type = FILE_STREAM;
    stream->readLine = ReadFromFile;
    stream->file = fp;
    return stream;
}

Stream *Stream_NewFromHandle(int32_t fd) {
    Stream *stream = NewStream();
    if (!stream) return nullptr;
    stream->type = HANDLE_STREAM;
    stream->readLine = ReadFromHandle;
    stream->handle = fd;
    stream->bufPos = 0;
    stream->bufLen = 0;
    return stream;
}

void Stream_Destroy(Stream *stream) {
    VOKT_ASSERT_OR_RETURN(stream != NULL);
    if (vokt::DestroyedAgain(stream, &kStreamClass)) return;  // destroyed before: reported, nothing released
    // The file or descriptor belongs to the caller and is never closed here.
    if (stream->type == STRING_STREAM) Object_Destroy(stream->string);
    Object_Destroy(stream->lastLine);
    vokt::Free(stream);
}

void Stream_Check(const Stream *stream) {
    VOKT_ASSERT_OR_RETURN(stream != NULL);
    if (vokt::UsedAfterDestroy(stream, &kStreamClass)) return;
    switch (stream->type) {
        case STRING_STREAM:
            VOKT_ASSERT(stream->string != NULL);
            break;
        case FILE_STREAM:
            VOKT_ASSERT(stream->file != NULL);
            break;
        case HANDLE_STREAM:
            VOKT_ASSERT(stream->handle != 0);
            break;
        default:
            VOKT_ASSERT(0);
    }
}

int32_t Stream_IsEOF(const Stream *stream) {
    // A file stream with its file is what Stream_Check passes: answer at once.
    if (stream && stream->type == FILE_STREAM && stream->file) return stream->bEof;
    if (vokt::UsedAfterDestroy(stream, &kStreamClass)) return 1;
    Stream_Check(stream);
    return stream ? stream->bEof : 1;
}

int32_t Stream_ReadLine(Stream *stream, String *line) {
    if (vokt::UsedAfterDestroy(stream, &kStreamClass)) return -1;
    VOKT_ASSERT_OR_RETURN(stream != NULL && stream->readLine != NULL, -1);
    const int32_t code = stream->readLine(stream, line, nullptr);
    if (code != 0) return code;
    if (String_IsSet(line)) return vokt::SetText(stream->lastLine, line->string, line->length);
    String_Reset(stream->lastLine);
    return 0;
}

int32_t Stream_GetLastLine(const Stream *stream, String *out) {
    if (vokt::UsedAfterDestroy(stream, &kStreamClass)) return -1;
    Stream_Check(stream);
    if (!stream) return -1;
    if (!String_IsSet(stream->lastLine)) {
        String_Reset(out);
        return 0;
    }
    String_Check(out);
    return out ? vokt::SetText(out, stream->lastLine->string, stream->lastLine->length) : -1;
}

int32_t Stream_ReadLogicalLine(Stream *stream, String *out) {
    if (vokt::UsedAfterDestroy(stream, &kStreamClass)) return -1;
    vokt::CleanupList list;
    String *line = list.Add(String_New());
    if (!line) return -2;
    String_Reset(out);
    VOKT_TRY(Stream_ReadLine(stream, line));
    VOKT_TRY(String_Set(out, ""));
    size_t index = 0;
    while (!Stream_IsEOF(stream)) {
        const char *text = line->string ? line->string : "";
        const size_t length = line->string ? line->length : 0;
        while (index < length && IsSpace(text[index])) index++;
        const size_t start = index;
        while (index < length && text[index] != '\\') index++;
        VOKT_TRY(AppendSegment(out, text, start, index));
        if (index >= length) return 0;
        // A continuation: go on after the backslash, across blank and empty lines, to the
        // next non-blank byte.
        index++;
        while (!Stream_IsEOF(stream)) {
            const char *next = line->string ? line->string : "";
            const size_t nextLength = line->string ? line->length : 0;
            while (index < nextLength && IsSpace(next[index])) index++;
            if (index < nextLength) break;
            VOKT_TRY(Stream_ReadLine(stream, line));
            index = 0;
        }
    }
    return 0;
}

}  // extern "C"
