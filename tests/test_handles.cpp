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
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(s->ftbl->name, "Socket");
    const int fd = s->fd;
    ASSERT_TRUE(IsOpen(fd));
    Object_Destroy(s);
    EXPECT_FALSE(IsOpen(fd));

    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    StreamHandle *h = StreamHandle_New(fds[0]);
    EXPECT_STREQ(h->ftbl->name, "StreamHandle");
    StreamHandle_Destroy(h);
    EXPECT_FALSE(IsOpen(fds[0]));
    EXPECT_TRUE(IsOpen(fds[1]));
    close(fds[1]);

    // A failed open stays visible inside a live object, and destroying it closes nothing.
    Socket *bad = Socket_New(-1, -1, -1);
    EXPECT_EQ(bad->fd, -1);
    Socket_Destroy(bad);
    StreamHandle_Destroy(StreamHandle_New(-5));
    FileHandle *missing = FileHandle_New("/no/such/file", "r");
    ASSERT_NE(missing, nullptr);
    EXPECT_STREQ(missing->ftbl->name, "FileHandle");
    EXPECT_EQ(missing->fp, nullptr);
    FileHandle_Destroy(missing);
}

TEST(Handles, FailuresAndNullObjects) {
    EXPECT_EQ(0, test::InChild([] {
        test::FailAllocation(1);
        EXPECT_EQ(Socket_New(AF_UNIX, SOCK_STREAM, 0), nullptr);
        test::FailAllocation(1);
        EXPECT_EQ(StreamHandle_New(3), nullptr);
        test::FailAllocation(1);
        EXPECT_EQ(FileHandle_New("x", "w"), nullptr);
        test::FailAllocation(0);
        EXPECT_FALSE(File_Exists("x"));  // nothing opened for a record that was not made
        Socket_Destroy(nullptr);
        const std::string log = test::ReadFile("vokt.log");
        for (const char *text : {": Unable to allocate Socket s\n", ": Unable to allocate StreamHandle s\n",
                                 ": Unable to allocate FileHandle s\n"})
            EXPECT_EQ(test::Count(log, text), 1) << text;
        EXPECT_TRUE(test::HasReport(log, "s!=NULL", "handles"));
    }));
}

}  // namespace
