// SPDX-License-Identifier: MIT
// Private to the checks: the text of the reports' JSON form, made in a fixed room. What does
// not fit is cut, and nothing is ever written past the room.
#ifndef VOKT_CHECKS_JSON_H
#define VOKT_CHECKS_JSON_H

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace vokt::checks {

// length bytes of text as a JSON string, quoted, into out (room bytes; a text cut short is
// still quoted); the bytes written, 0 when not even "" fits.
inline size_t JsonString(char *out, size_t room, const char *text, size_t length) {
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

struct JsonBuilder {
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

// A site's text, "f+0x2f (app, app.c:12) <- main+0x11 (app)", as an array of frames into out
// (room bytes, at least 2): [{"function":"f","offset":"0x2f","module":"app","file":"app.c",
// "line":12},...]; a frame without a name has its offset alone.
inline void FramesAsJson(const char *text, char *out, size_t room) {
    JsonBuilder b{out, room, 0};
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
}

}  // namespace vokt::checks

#endif
