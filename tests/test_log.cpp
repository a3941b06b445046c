#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <regex>
#include <sstream>
#include <vector>

#include "support.h"
#include "vokt/vokt.h"

namespace {

const std::string kStamp = "\\d\\d/\\d\\d/\\d{4} \\d\\d:\\d\\d:\\d\\d";
const std::string kTag = " t0x[0-9a-f]+ : ";

std::vector<std::string> Lines(const std::string &text) {
    std::vector<std::string> lines;
    std::stringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// True when the log holds exactly these lines, each after its time stamp.
bool LogIs(const std::vector<std::string> &patterns, const std::string &path = "vokt.log") {
    const auto lines = Lines(test::ReadFile(path));
    bool same = lines.size() == patterns.size();
    for (size_t i = 0; same && i < lines.size(); i++) same = std::regex_match(lines[i], std::regex(kStamp + patterns[i]));
    if (!same) ADD_FAILURE() << test::ReadFile(path);
    return same;
}

// Runs body in a child with the given environment (null: unset).
int WithEnv(const char *debug, const char *logging, const std::function<void()> &body) {
    return test::InChild([&] {
        debug ? setenv("VOKT_DEBUG", debug, 1) : unsetenv("VOKT_DEBUG");
        logging ? setenv("VOKT_LOGGING", logging, 1) : unsetenv("VOKT_LOGGING");
        Runtime_Init();
        body();
    });
}

TEST(Log, EnvironmentChoosesLevelTagEchoAndFile) {
    EXPECT_EQ(0, WithEnv(nullptr, nullptr, [] {
        EXPECT_EQ(Log_GetLevel(), -1);  // not read before the first call
        Log_Write(1, "not written");
        EXPECT_EQ(Log_GetLevel(), 0);
        Log_Write(0, "value %d", 42);
        EXPECT_TRUE(LogIs({": value 42"}));
    }));
    EXPECT_EQ(0, WithEnv("1", "50", [] {
        testing::internal::CaptureStderr();
        Log_Write(100, "deep %s", "trace");
        const std::string echoed = testing::internal::GetCapturedStderr();
        EXPECT_TRUE(LogIs({kTag + "deep trace"}));
        EXPECT_EQ(echoed, test::ReadFile("vokt.log"));
    }));
    EXPECT_EQ(0, WithEnv("custom.log", nullptr, [] {
        testing::internal::CaptureStderr();
        Log_Debug("to the named file");
        testing::internal::GetCapturedStderr();
        EXPECT_TRUE(LogIs({kTag + "to the named file"}, "custom.log"));
        EXPECT_FALSE(File_Exists("vokt.log"));
    }));
    EXPECT_EQ(0, WithEnv("", "50", [] {  // an empty VOKT_DEBUG counts as unset
        testing::internal::CaptureStderr();
        Log_Write(50, "fifty");
        Log_Write(51, "fifty-one");
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_TRUE(LogIs({": fifty"}));
    }));
    EXPECT_EQ(0, WithEnv(nullptr, "abc", [] {
        Log_Write(1, "one");
        EXPECT_EQ(Log_GetLevel(), 0);
    }));
}

TEST(Log, SettersAndTheThreadTagBoundary) {
    EXPECT_EQ(0, WithEnv(nullptr, nullptr, [] {
        Log_SetInitialLevel(3);
        EXPECT_EQ(Log_GetLevel(), 3);
        Log_SetLevel(10);
        Log_SetLevel(5);
        Log_SetInitialLevel(1);
        EXPECT_EQ(Log_GetLevel(), 10);  // later calls only raise it
        Log_SetLevel(99);
        Log_Write(99, "untagged");
        Log_SetLevel(100);
        Log_Write(100, "tagged");
        testing::internal::CaptureStdout();
        Log_SetEcho(1);
        Log_Write(0, "echoed");
        Log_SetEcho(0);
        Log_Write(0, "quiet");
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(test::Count(out, " : echoed\n") + test::Count(out, "quiet"), 1);
        EXPECT_TRUE(LogIs({": untagged", kTag + "tagged", kTag + "echoed", kTag + "quiet"}));
    }));
}

std::string OldLog(size_t size) {
    std::string text;
    for (int i = 0; text.size() < size; i++) text += "line " + std::to_string(i) + " of the old log\n";
    return text.substr(0, size);
}

TEST(Log, FileIsCutToTheWholeLinesOfItsNewestHalf) {
    const size_t kLine = 26;  // "DD/MM/YYYY hh:mm:ss: next\n"
    EXPECT_EQ(0, WithEnv(nullptr, "25", [&] {
        test::WriteFile("vokt.log", OldLog(131072));  // exactly at the limit: kept
        Log_Write(0, "next");
        EXPECT_EQ(test::ReadFile("vokt.log").size(), 131072u + kLine);
    }));
    EXPECT_EQ(0, WithEnv(nullptr, "25", [] {
        const std::string old = OldLog(131073);
        test::WriteFile("vokt.log", old);
        Log_Write(0, "next");
        const std::string tail = old.substr(old.find('\n', old.size() - 65536) + 1);
        const std::string now = test::ReadFile("vokt.log");
        ASSERT_EQ(now.compare(0, tail.size(), tail), 0);
        test::WriteFile("rest", now.substr(tail.size()));
        EXPECT_TRUE(LogIs({": Logfile truncated from 131073 bytes to " + std::to_string(tail.size()) + " bytes", ": next"},
                          "rest"));
    }));
    EXPECT_EQ(0, WithEnv(nullptr, nullptr, [&] {
        Log_SetMaxSize(0);  // 2 KiB, and a newest half without a line end is never cut
        test::WriteFile("vokt.log", std::string(5000, 'x'));
        Log_Write(0, "next");
        EXPECT_EQ(test::ReadFile("vokt.log").size(), 5000u + kLine);
    }));
    EXPECT_EQ(0, WithEnv(nullptr, nullptr, [&] {
        Log_SetMaxSize(0);
        test::WriteFile("vokt.log", OldLog(5000));
        Log_Write(0, "next");
        EXPECT_LE(test::ReadFile("vokt.log").size(), 1024u + kLine);
    }));
}

TEST(Log, FailuresDegradeAsSpecified) {
    EXPECT_EQ(0, WithEnv("1", nullptr, [] {
        testing::internal::CaptureStderr();
        Log_Write(0, "first");
        test::FailAllocation(1);  // the scratch string
        EXPECT_EQ(Log_Write(0, "lost %d", 1), -2);
        test::FailAllocation(2);  // the formatted message
        EXPECT_EQ(Log_Write(0, "lost %d", 2), 0);
        test::FailAllocation(0);
        const std::string echoed = testing::internal::GetCapturedStderr();
        const std::string log = test::ReadFile("vokt.log");
        EXPECT_EQ(test::Count(log, "lost"), 0);
        EXPECT_EQ(test::Count(log, " : Unable to allocate String ps\n"), 1);
        EXPECT_EQ(test::Count(log, "\nINSUFFICIENT FREE MEMORY TO MAINTAIN LOGFILE\n"), 1);
        EXPECT_EQ(test::Count(echoed, "ERROR FORMATTING LOG LINE"), 1);

        // A file that cannot be opened loses the line quietly after its ten attempts.
        EXPECT_EQ(Log_SetFile("no/such/dir/x.log"), 0);
        const auto start = std::chrono::steady_clock::now();
        testing::internal::CaptureStderr();
        EXPECT_EQ(Log_Write(0, "nowhere"), 0);
        EXPECT_EQ(test::Count(testing::internal::GetCapturedStderr(), "nowhere"), 1);  // still echoed
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(12));
        test::FailAllocation(1);
        EXPECT_EQ(Log_SetFile("other.log"), -2);
        test::FailAllocation(0);
        Log_Shutdown();
    }));
}

void *WriteMany(void *arg) {
    const long id = reinterpret_cast<long>(arg);
    const std::string payload(200, static_cast<char>('a' + id));
    for (int i = 0; i < 150; i++) Log_Write(0, "thread %ld line %d %s", id, i, payload.c_str());
    return nullptr;
}

TEST(Log, LinesFromSeveralThreadsNeverInterleave) {
    EXPECT_EQ(0, WithEnv(nullptr, nullptr, [] {
        Thread threads[4];
        for (long i = 0; i < 4; i++) Thread_CreateJoinable(&threads[i], WriteMany, reinterpret_cast<void *>(i));
        for (auto &t : threads) Thread_Join(t);
        const auto lines = Lines(test::ReadFile("vokt.log"));
        ASSERT_EQ(lines.size(), 600u);
        const std::regex line(kStamp + ": thread (\\d) line \\d+ ([a-d])\\2{199}");
        std::smatch m;
        for (const auto &l : lines) {
            ASSERT_TRUE(std::regex_match(l, m, line)) << l;
            EXPECT_EQ(m[2].str()[0], 'a' + (m[1].str()[0] - '0'));
        }
    }));
}

}  // namespace
