// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "support.h"
#include "vokt/vokt.h"

namespace {

using Lines = std::vector<std::string>;

// Every line until the end of input, with "|eof" after the line that reported it; the
// stream is destroyed.
Lines ReadAll(Stream *stream) {
    Lines lines;
    String *line = String_New();
    while (lines.size() < 20 && !Stream_IsEOF(stream)) {
        EXPECT_EQ(Stream_ReadLine(stream, line), 0);
        lines.push_back(std::string(line->string ? line->string : "<unset>") + (Stream_IsEOF(stream) ? "|eof" : ""));
    }
    String_Destroy(line);
    Stream_Destroy(stream);
    return lines;
}

// Lines read from a pipe (or socket pair) that receives writes one at a time.
Lines FromHandle(const Lines &writes, bool socketPair = false) {
    int fds[2];
    EXPECT_EQ(socketPair ? socketpair(AF_UNIX, SOCK_STREAM, 0, fds) : pipe(fds), 0);
    std::thread writer([&] {
        for (const auto &w : writes) EXPECT_EQ(write(fds[1], w.data(), w.size()), ssize_t(w.size())), usleep(2000);
        close(fds[1]);
    });
    const Lines lines = ReadAll(Stream_NewFromHandle(fds[0]));
    writer.join();
    EXPECT_EQ(close(fds[0]), 0);  // the stream never closes it
    return lines;
}

TEST(Stream, EachReaderKeepsItsLineEndRules) {
    EXPECT_EQ(ReadAll(Stream_NewFromString("a\nb")), (Lines{"a", "b", "b|eof"}));
    EXPECT_EQ(ReadAll(Stream_NewFromString("x\r\ny")), (Lines{"x\r", "y", "y|eof"}));
    EXPECT_EQ(ReadAll(Stream_NewFromString("\n\nz")), (Lines{"", "", "z", "z|eof"}));
    EXPECT_EQ(ReadAll(Stream_NewFromString("a\n\n")), (Lines{"a", "a|eof"})) << "a last empty line ends the text";
    EXPECT_EQ(ReadAll(Stream_NewFromString("")), (Lines{"<unset>|eof"}));
    const std::string longLine(300, 'L');
    EXPECT_EQ(FromHandle({"x\r\ny"}), (Lines{"x", "y", "<unset>|eof"}));
    EXPECT_EQ(FromHandle({"par", "tial\r", "\nnext\n", longLine.substr(0, 100), longLine.substr(100) + "\n\n", "end"}),
              (Lines{"partial", "next", longLine, "", "end", "<unset>|eof"}));
    EXPECT_EQ(FromHandle({"one\n", "two\n"}, true), (Lines{"one", "two", "<unset>|eof"}));
    Stream *stream = Stream_NewFromString("first\nsecond");
    String *last = String_New();
    EXPECT_EQ(Stream_GetLastLine(stream, last), 0);
    EXPECT_EQ(String_IsSet(last), 0);
    Stream_ReadLine(stream, last);
    Stream_ReadLine(stream, last);
    String_Reset(last);
    EXPECT_EQ(Stream_GetLastLine(stream, last), 0);
    EXPECT_STREQ(last->string, "second");
    String_Destroy(last);
    Stream_Destroy(stream);
}

TEST(Stream, FileReaderDeliversAtMost1023Bytes) {
    EXPECT_EQ(0, test::InChild([] {
        test::WriteFile("in.txt", std::string(1500, 'x') + "\np\r\nq");
        FileHandle *handle = FileHandle_New("in.txt", "r");
        EXPECT_EQ(ReadAll(Stream_NewFromFile(handle->fp)),
                  (Lines{std::string(1023, 'x'), std::string(477, 'x'), "p\r", "q", "|eof"}));
        EXPECT_EQ(fseek(handle->fp, 0, SEEK_SET), 0);  // still open after the stream is gone
        const int fd = fileno(handle->fp);
        FileHandle_Destroy(handle);
        EXPECT_EQ(fcntl(fd, F_GETFD), -1);  // the handle object closes it
    }));
}

TEST(Stream, LogicalLinesJoinContinuations) {
    Stream *stream = Stream_NewFromString("  key = a \\\n   b  \nplain line\nx \\ y\nlong \\\n\n   \n  tail\n\nlast \\");
    String *out = String_New();
    for (const char *expected : {"key = a b", "plain line", "x y", "long tail", "", "last", ""}) {
        EXPECT_EQ(Stream_ReadLogicalLine(stream, out), 0);
        EXPECT_STREQ(out->string, expected);
    }
    String_Destroy(out);
    Stream_Destroy(stream);
}

TEST(Stream, ChecksAndFailures) {
    EXPECT_EQ(0, test::InChild([] {
        test::FailAllocation(2);
        EXPECT_EQ(Stream_NewFromFile(stdin), nullptr);  // the last-line String: no message
        test::FailAllocation(0);
        Stream *zero = Stream_NewFromHandle(0), *file = Stream_NewFromFile(nullptr);
        Stream_IsEOF(zero);  // a warning on descriptor 0, and it works on
        Stream_Check(file);
        Stream_Destroy(zero);
        Stream_Destroy(file);
        const std::string log = test::ReadFile("vokt.log");
        EXPECT_EQ(test::Count(log, ": Unable to allocate "), 1) << "only the String's own report";
        EXPECT_TRUE(test::HasReport(log, "stream->handle != 0", "stream"));
        EXPECT_TRUE(test::HasReport(log, "stream->file != NULL", "stream"));
    }));
}

}  // namespace
