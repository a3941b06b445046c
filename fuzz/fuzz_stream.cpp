// SPDX-License-Identifier: MIT
// The three line readers against models of their line-end rules, and logical lines.
#include <sys/mman.h>
#include <unistd.h>

#include <vector>

#include "check.h"

namespace {

using Lines = std::vector<std::string>;

Lines SplitAtNewlines(const std::string &text) {
    Lines parts(1);
    for (char c : text) {
        if (c == '\n')
            parts.emplace_back();
        else
            parts.back().push_back(c);
    }
    return parts;
}

// Every line a stream delivers before it reports the end of its input.
Lines Read(Stream *stream) {
    Lines lines;
    String *line = String_New();
    for (;;) {
        FUZZ_CHECK(Stream_ReadLine(stream, line) == 0);
        if (Stream_IsEOF(stream)) break;
        lines.push_back(Text(line));
    }
    String_Destroy(line);
    Object_Destroy(stream);
    return lines;
}

// Lines end at '\n' only; an empty line just before the end of the text is not delivered.
Lines StringModel(const std::string &text) {
    Lines parts = SplitAtNewlines(text);
    if (!text.empty() && text.back() == '\n') parts.pop_back();
    if (!parts.empty() && parts.back().empty()) parts.pop_back();
    return parts;
}

// fgets with 1024 bytes: pieces of at most 1023, one trailing '\n' removed.
Lines FileModel(const std::string &text) {
    Lines lines;
    for (size_t at = 0; at < text.size();) {
        size_t n = 0;
        while (n < 1023 && at + n < text.size())
            if (text[at + n++] == '\n') break;
        std::string piece = text.substr(at, n);
        if (!piece.empty() && piece.back() == '\n') piece.pop_back();
        lines.push_back(piece);
        at += n;
    }
    return lines;
}

// Terminated lines lose their trailing '\r's; a last unterminated line is kept as it is.
Lines HandleModel(const std::string &text) {
    Lines parts = SplitAtNewlines(text), lines;
    for (size_t i = 0; i + 1 < parts.size(); i++) {
        std::string line = parts[i];
        while (!line.empty() && line.back() == '\r') line.pop_back();
        lines.push_back(line);
    }
    if (!parts.back().empty()) lines.push_back(parts.back());
    return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string text(reinterpret_cast<const char *>(data), size);
    for (char &c : text)
        if (c == '\0') c = ' ';  // the readers hand out C texts

    FUZZ_CHECK(Read(Stream_NewFromString(text.c_str())) == StringModel(text));

    if (!text.empty()) {  // fmemopen refuses an empty buffer
        FILE *file = fmemopen(text.data(), text.size(), "r");
        FUZZ_CHECK(file != nullptr);
        FUZZ_CHECK(Read(Stream_NewFromFile(file)) == FileModel(text));
        fclose(file);
    }

    const int fd = memfd_create("stream", MFD_CLOEXEC);
    FUZZ_CHECK(fd > 0);
    FUZZ_CHECK(write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
    lseek(fd, 0, SEEK_SET);
    FUZZ_CHECK(Read(Stream_NewFromHandle(fd)) == HandleModel(text));
    close(fd);

    // Logical lines: never a line end inside one, and the end of input is reached.
    Stream *logical = Stream_NewFromString(text.c_str());
    String *out = String_New();
    size_t calls = 0;
    while (!Stream_IsEOF(logical)) {
        FUZZ_CHECK(Stream_ReadLogicalLine(logical, out) == 0);
        FUZZ_CHECK(Text(out).find('\n') == std::string::npos);
        FUZZ_CHECK(++calls <= text.size() + 2);
    }
    Object_Destroy(out);
    Object_Destroy(logical);
    return 0;
}
