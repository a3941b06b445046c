// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support.h"
#include "vokt/vokt.h"

namespace {

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

TEST(Handles, DestroyClosesWhatIsHeld) {
    Socket *s = Socket_New(AF_UNIX, SOCK_STREAM, 0);
    const int fd = s->fd;
    ASSERT_TRUE(IsOpen(fd));
    Object_Destroy(s);
    EXPECT_FALSE(IsOpen(fd));
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    StreamHandle_Destroy(StreamHandle_New(fds[0]));
    EXPECT_FALSE(IsOpen(fds[0]));
    EXPECT_TRUE(IsOpen(fds[1]));
    close(fds[1]);
    // A failed open stays visible inside a live object; destroying it closes nothing.
    Socket *bad = Socket_New(-1, -1, -1);
    EXPECT_EQ(bad->fd, -1);
    Socket_Destroy(bad);
    StreamHandle_Destroy(StreamHandle_New(-5));
    FileHandle *missing = FileHandle_New("/no/such/file", "r");
    EXPECT_EQ(missing->fp, nullptr);
    FileHandle_Destroy(missing);
}

TEST(Handles, DescriptorsAreClosedOnExec) {
    auto closedOnExec = [](int fd) { return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; };
    EXPECT_EQ(0, test::InChild([&] {
        Socket *s = Socket_New(AF_UNIX, SOCK_STREAM, 0);
        FileHandle *f = FileHandle_New("x", "w");
        FileHandle *g = FileHandle_New("x", "re");  // the caller's own 'e' is kept as it is
        EXPECT_TRUE(closedOnExec(s->fd));
        EXPECT_TRUE(closedOnExec(fileno(f->fp)));
        EXPECT_TRUE(closedOnExec(fileno(g->fp)));
        for (void *o : {static_cast<void *>(s), static_cast<void *>(f), static_cast<void *>(g)}) Object_Destroy(o);
    }));
}

}  // namespace
