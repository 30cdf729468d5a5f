#include "platform/SystemLog.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <latch>
#include <optional>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <unistd.h>

using namespace ovalto::platform;
using ovalto::test::LogCapture;

namespace {

// Points file descriptor 2 at a pipe while it lives. The reader takes small bites, so writers
// often find the pipe full and wake up together: lines written in pieces would interleave.
class StandardErrorCapture {
public:
    StandardErrorCapture() {
        int fds[2];
        if (pipe(fds) != 0) throw std::runtime_error("pipe");
        std::fflush(stderr);
        saved_ = dup(STDERR_FILENO);
        dup2(fds[1], STDERR_FILENO);
        close(fds[1]);
        reader_ = std::thread([this, in = fds[0]] {
            char buffer[256];
            for (ssize_t n; (n = read(in, buffer, sizeof buffer)) > 0;)
                output_.append(buffer, static_cast<std::size_t>(n));
            close(in);
        });
    }
    ~StandardErrorCapture() { restore(); }
    // Restores standard error and returns the lines written meanwhile that contain `marker`.
    std::vector<std::string> linesWith(const std::string& marker) {
        restore();
        std::istringstream in(output_);
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) {
            if (line.find(marker) != std::string::npos) lines.push_back(line);
        }
        return lines;
    }

private:
    void restore() {
        if (saved_ < 0) return;
        dup2(saved_, STDERR_FILENO); // closes the pipe's last write end: the reader sees its end
        close(saved_);
        saved_ = -1;
        reader_.join();
    }
    int saved_ = -1;
    std::string output_;
    std::thread reader_;
};

struct Line {
    long pid = 0, tid = 0;
    std::string text;
};

// "2024-05-01T12:34:56.789+02:00 ovalto[<pid>:<tid>] <text>"; no value when the prefix is off.
std::optional<Line> parse(const std::string& line) {
    static const std::regex stamped(
        R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d ovalto\[(\d+):(\d+)\] (.*))");
    std::smatch match;
    if (!std::regex_match(line, match, stamped)) return std::nullopt;
    return Line{std::stol(match[1]), std::stol(match[2]), match[3]};
}

TEST(SystemLog, LinesFromConcurrentThreadsNeverInterleave) {
    StandardErrorCapture capture;
    constexpr int threads = 8, linesEach = 300;
    std::latch start(threads);
    std::vector<std::thread> writers;
    for (int t = 0; t < threads; ++t) {
        writers.emplace_back([t, &start] {
            std::string body(200, static_cast<char>('a' + t));
            start.arrive_and_wait();
            for (int i = 0; i < linesEach; ++i)
                SystemLog::write("marker-concurrent " + body);
        });
    }
    for (auto& writer : writers)
        writer.join();

    auto lines = capture.linesWith("marker-concurrent");
    ASSERT_EQ(lines.size(), std::size_t{threads * linesEach});
    for (const auto& line : lines) {
        auto parsed = parse(line);
        ASSERT_TRUE(parsed) << line.substr(0, 80);
        const std::string& text = parsed->text;
        ASSERT_EQ(text.size(), std::string("marker-concurrent ").size() + 200);
        EXPECT_EQ(text.find_first_not_of(text.back(), 18), std::string::npos);
    }
}

TEST(SystemLog, SinksTakeTheTextOffStandardErrorWhichGetsItStampedAndVerbatim) {
    StandardErrorCapture standardError;
    std::vector<std::string> seen;
    {
        LogCapture log;
        SystemLog::write("marker-sink first");
        std::thread([] { SystemLog::write("marker-sink from a thread"); }).join();
        seen = log.lines();
    }
    SystemLog::write("marker-sink 100% of %s %d %n done");
    EXPECT_EQ(seen, (std::vector<std::string>{"marker-sink first", "marker-sink from a thread"}));
    // Only the line written after the capture ended reached standard error.
    auto lines = standardError.linesWith("marker-sink");
    ASSERT_EQ(lines.size(), 1u);
    auto line = parse(lines[0]);
    ASSERT_TRUE(line) << lines[0];
    EXPECT_EQ(line->text, "marker-sink 100% of %s %d %n done");
    EXPECT_EQ(line->pid, static_cast<long>(getpid()));
    EXPECT_EQ(line->tid, static_cast<long>(gettid()));
}

TEST(SystemLog, RemovedSinkIsNeverCalledAgainAndMayRemoveItself) {
    LogCapture quiet;
    int calls = 0, token = 0;
    token = SystemLog::addSink([&](const std::string&) {
        ++calls;
        SystemLog::removeSink(token);
    });
    SystemLog::write("one");
    SystemLog::write("two");
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(quiet.lines().size(), 2u);
}

} // namespace
