// The log of a process under load: a flood, a pipe that nobody reads, a second file for failures,
// the severities, the journal, the end of the process, and forked children.

#include <tlx/Log.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

using namespace Veltrane::Quillmark::Tlx;
using QmTest::Lines;
using QmTest::linesOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

namespace {

/// Only a log that hangs takes this long.
constexpr std::chrono::seconds FLUSH_LIMIT{60};

class LogLoadTest : public testing::Test
{
  protected:
    LogLoadTest()
    {
        m_settings.file = m_temporary.path("qm.log");
        m_settings.errorsFile = m_temporary.path("qm-errors.log");
        m_settings.toStderr = false;
        m_settings.second = std::chrono::milliseconds(0); // only the tests end a second
    }

    static LoggerFactory& factory() { return LoggerFactory::instance(); }
    static Logger* logger() { return factory().getLogger(400); }
    void configure()
    {
        const auto configured = factory().configure(m_settings);
        ASSERT_TRUE(configured) << configured.error();
    }
    static void log(LogSeverity severity, const std::string& text, int line = 1)
    {
        logger()->write({"op", 1, severity, {"../A", line}}, text);
    }
    static void flush() { ASSERT_TRUE(factory().flush(FLUSH_LIMIT)); }
    /// "[SEVERITY] TEXT" of each line of a file.
    static Lines textsOf(const std::string& file)
    {
        Lines texts;
        for (const std::string& line : linesOf(file))
            texts.push_back(line.substr(line.find(" [") + 1));
        return texts;
    }
    /// The same of a log and its rotated files, the oldest first.
    Lines allTexts(const std::string& stem) const
    {
        Lines all;
        for (int i = 100; i >= 0; --i) {
            const std::string number = i == 0 ? "" : "." + std::to_string(i);
            for (std::string& text : textsOf(m_temporary.path(stem + number + ".log")))
                all.push_back(std::move(text));
        }
        return all;
    }

    const QmTest::TemporaryDirectory m_temporary;
    LogSettings m_settings;
};

/// How many calls each text stands for: written lines, and those in sums.
std::map<std::string, unsigned long long> callsOf(const Lines& texts)
{
    static const std::regex sum("(.*) \\.\\.\\. and ([0-9,]+) more like this");
    std::map<std::string, unsigned long long> calls;
    for (const std::string& text : texts) {
        std::smatch match;
        if (std::regex_match(text, match, sum))
            calls[match[1]] += std::stoull(std::regex_replace(match[2].str(), std::regex(","), ""));
        else
            ++calls[text];
    }
    return calls;
}

TEST_F(LogLoadTest, AFloodOf32ThreadsLeavesEveryRareLineAndItsOwnNumber)
{
    constexpr int THREADS = 32;
    constexpr int CALLS = 2000;
    constexpr int RARE = 200;
    m_settings.maxBytes = 4096;
    m_settings.errorsMaxBytes = 4096;
    m_settings.keep = 20; // the unlimited flood would need 1,300 files
    m_settings.patience = FLUSH_LIMIT;
    configure();
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < CALLS; ++i)
                log(LogSeverity::Warning, "flood");
        });
    threads.emplace_back([] {
        for (int i = 0; i < RARE; ++i) {
            log(LogSeverity::Error, "rare " + std::to_string(i), 2);
            if (i % 10 == 9)
                factory().endSecond();
        }
    });
    for (std::thread& thread : threads)
        thread.join();
    flush();
    for (const std::string stem : {"qm", "qm-errors"}) {
        const Lines texts = allTexts(stem);
        const auto calls = callsOf(texts);
        EXPECT_EQ(THREADS * CALLS, calls.at("[warning] flood")) << stem;
        for (int i = 0; i < RARE; ++i)
            EXPECT_EQ(1u, calls.at("[error] rare " + std::to_string(i))) << stem;
        // At most a burst and a sum in each of the 20 seconds.
        EXPECT_LE(texts.size(), RARE + (m_settings.burst + 1) * (RARE / 10 + 1));
    }
    EXPECT_EQ(0u, factory().counters().lost);
    EXPECT_GE(factory().counters().summedUp, THREADS * CALLS - 21 * m_settings.burst);
}

TEST_F(LogLoadTest, TheBurstCanBeChangedWhileItRuns)
{
    m_settings.burst = 1;
    configure();
    const auto write = [](int lines) {
        for (int i = 0; i < lines; ++i)
            log(LogSeverity::Notice, "text");
    };
    write(3);
    factory().endSecond();
    factory().setBurst(0);
    write(3);
    flush();
    EXPECT_THAT(textsOf(m_settings.file),
                ElementsAre("[notice] text", "[notice] text ... and 2 more like this",
                            "[notice] text", "[notice] text", "[notice] text"));
}

TEST_F(LogLoadTest, ErrorsAndWarningsAlsoGoToTheirOwnFile)
{
    configure();
    log(LogSeverity::Error, "one");
    log(LogSeverity::Warning, "two");
    log(LogSeverity::Notice, "three");
    log(LogSeverity::Debug, "four");
    flush();
    EXPECT_THAT(textsOf(m_settings.file),
                ElementsAre("[error] one", "[warning] two", "[notice] three", "[debug] four"));
    EXPECT_THAT(textsOf(m_settings.errorsFile), ElementsAre("[error] one", "[warning] two"));
    struct stat status = {};
    ASSERT_EQ(0, ::stat(m_settings.errorsFile.c_str(), &status));
    EXPECT_EQ(0640u, status.st_mode & 07777u);
}

TEST_F(LogLoadTest, NoticesRotateNoErrorAway)
{
    m_settings.burst = 0;
    m_settings.maxBytes = 4096;
    m_settings.keep = 1;
    configure();
    log(LogSeverity::Error, "the cause");
    for (int i = 0; i < 1000; ++i)
        log(LogSeverity::Notice, "text");
    flush();
    EXPECT_THAT(allTexts("qm"), Not(Contains("[error] the cause")));
    EXPECT_THAT(allTexts("qm-errors"), ElementsAre("[error] the cause"));
}

TEST_F(LogLoadTest, TheErrorsFileHasItsOwnSize)
{
    m_settings.burst = 0;
    m_settings.errorsMaxBytes = 200;
    m_settings.keep = 2;
    configure();
    for (int i = 0; i < 10; ++i)
        log(LogSeverity::Error, std::to_string(i) + std::string(100, '.'));
    flush();
    EXPECT_EQ(10u, linesOf(m_settings.file).size());
    EXPECT_FALSE(std::filesystem::exists(m_temporary.path("qm.1.log")));
    EXPECT_THAT(allTexts("qm-errors"), ElementsAre("[error] 7" + std::string(100, '.'),
                                                   "[error] 8" + std::string(100, '.'),
                                                   "[error] 9" + std::string(100, '.')));
}

TEST_F(LogLoadTest, AnErrorsFileThatCannotBeOpenedIsRefused)
{
    configure();
    LogSettings wrong = m_settings;
    wrong.errorsFile = m_temporary.path("missing/errors.log");
    const auto done = factory().configure(wrong);
    ASSERT_FALSE(done);
    EXPECT_EQ("Cannot open log file " + wrong.errorsFile + ": No such file or directory",
              done.error());
    log(LogSeverity::Error, "still here");
    flush();
    EXPECT_THAT(textsOf(m_settings.errorsFile), ElementsAre("[error] still here"));
}

TEST_F(LogLoadTest, TheLowestSeverityHoldsAtOnce)
{
    m_settings.severity = LogSeverity::Warning;
    configure();
    const auto writeAll = [](const std::string& text) {
        for (const LogSeverity severity :
             {LogSeverity::Error, LogSeverity::Warning, LogSeverity::Notice, LogSeverity::Debug})
            log(severity, text);
    };
    EXPECT_EQ(LogSeverity::Warning, factory().severity());
    writeAll("one");
    factory().setSeverity(LogSeverity::Error);
    writeAll("two");
    factory().setSeverity(LogSeverity::Debug);
    writeAll("three");
    flush();
    EXPECT_THAT(textsOf(m_settings.file),
                ElementsAre("[error] one", "[warning] one", "[error] two", "[error] three",
                            "[warning] three", "[notice] three", "[debug] three"));
}

/// Puts a file in the place of standard error while it lives.
class StandardError
{
  public:
    explicit StandardError(int replacement) : m_saved(::dup(STDERR_FILENO))
    {
        ::dup2(replacement, STDERR_FILENO);
    }
    ~StandardError()
    {
        ::dup2(m_saved, STDERR_FILENO);
        ::close(m_saved);
    }
    StandardError(const StandardError&) = delete;
    StandardError& operator=(const StandardError&) = delete;

  private:
    const int m_saved;
};

/// Reads what is there, and does not wait.
std::string readAvailable(int fd)
{
    std::string result;
    char bytes[65536];
    pollfd watched = {fd, POLLIN, 0};
    while (::poll(&watched, 1, 0) > 0) {
        const ssize_t n = ::read(fd, bytes, sizeof bytes);
        if (n <= 0)
            break;
        result.append(bytes, static_cast<std::size_t>(n));
    }
    return result;
}

/// The same for a pipe and for a socket: standard error is the journal's socket under systemd.
class LogStalledTest : public LogLoadTest, public testing::WithParamInterface<bool>
{
};

TEST_P(LogStalledTest, AStandardErrorThatNobodyReadsStopsNothing)
{
    int ends[2];
    ASSERT_EQ(0, GetParam() ? ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) : ::pipe(ends));
    const int reading = ends[0];
    m_settings.toStderr = true;
    m_settings.burst = 0;
    m_settings.patience = std::chrono::milliseconds(1);
    constexpr int CALLS = 2000; // 1 MB, more than a pipe or a socket keeps
    const std::string tail(500, '.');
    std::string shown;
    {
        const StandardError replaced(ends[1]);
        configure();
        for (int i = 0; i < CALLS; ++i)
            log(LogSeverity::Error, std::to_string(i) + tail);
        flush();
        EXPECT_EQ(static_cast<std::size_t>(CALLS), linesOf(m_settings.file).size());
        const auto lost = factory().counters().lost;
        EXPECT_GT(lost, 0u);
        shown = readAvailable(reading);
        log(LogSeverity::Error, "read again");
        flush();
        shown += readAvailable(reading);
        EXPECT_EQ(lost, factory().counters().lost);
        // Each line is whole, and the number of the missing ones is there.
        const std::string lines = testing::PrintToString(lost);
        EXPECT_THAT(shown, testing::HasSubstr("Logger::log [warning] " + lines +
                                              " lines could not be written to standard error\n"));
        EXPECT_THAT(shown, testing::EndsWith(" op [error] read again\n"));
        const auto whole = std::count(shown.begin(), shown.end(), '\n');
        EXPECT_EQ(CALLS - static_cast<int>(lost) + 2, whole);
    }
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST_P(LogStalledTest, TheFilesGetTheNumberOfTheLinesThatItLostLast)
{
    int ends[2];
    ASSERT_EQ(0, GetParam() ? ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) : ::pipe(ends));
    m_settings.toStderr = true;
    m_settings.burst = 0;
    m_settings.patience = std::chrono::milliseconds(1);
    constexpr int CALLS = 2000;
    const std::string tail(500, '.');
    QmTest::ChildProcess child([&]() -> int {
        ::dup2(ends[1], STDERR_FILENO);
        configure();
        for (int i = 0; i < CALLS; ++i)
            log(LogSeverity::Notice, std::to_string(i) + tail);
        std::exit(7);
    });
    ASSERT_EQ(7, child.exitCode());
    const std::string shown = readAvailable(ends[0]);
    const auto lost = CALLS - std::count(shown.begin(), shown.end(), '\n');
    EXPECT_GT(lost, 0);
    const std::string report =
        "[warning] " + std::to_string(lost) + " lines could not be written to standard error";
    const Lines texts = textsOf(m_settings.file);
    ASSERT_EQ(CALLS + 1u, texts.size());
    EXPECT_EQ(report, texts.back());
    EXPECT_THAT(textsOf(m_settings.errorsFile), ElementsAre(report));
    ::close(ends[0]);
    ::close(ends[1]);
}

INSTANTIATE_TEST_SUITE_P(PipeAndSocket, LogStalledTest, testing::Bool());

TEST_F(LogLoadTest, TheJournalGetsTheSeverityOfEachLine)
{
    int ends[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
    struct stat status = {};
    ASSERT_EQ(0, ::fstat(ends[1], &status));
    const auto device = [&](ino_t inode) {
        return std::to_string(status.st_dev) + ":" + std::to_string(inode);
    };
    m_settings.toStderr = true;
    const auto shownOf = [&] {
        const StandardError replaced(ends[1]);
        configure();
        for (const LogSeverity severity :
             {LogSeverity::Error, LogSeverity::Warning, LogSeverity::Notice, LogSeverity::Debug})
            log(severity, "text");
        flush();
        return std::regex_replace(readAvailable(ends[0]), std::regex("2[^ ]* 1 400 [0-9]+ "), "");
    };
    ::setenv("JOURNAL_STREAM", device(status.st_ino).c_str(), 1);
    EXPECT_EQ("<3>op [error] text\n<4>op [warning] text\n<5>op [notice] text\n<7>op [debug] text\n",
              shownOf());
    // Standard error was moved away from the journal.
    ::setenv("JOURNAL_STREAM", device(status.st_ino + 1).c_str(), 1);
    EXPECT_EQ("op [error] text\nop [warning] text\nop [notice] text\nop [debug] text\n", shownOf());
    ::unsetenv("JOURNAL_STREAM");
    EXPECT_EQ("op [error] text\nop [warning] text\nop [notice] text\nop [debug] text\n", shownOf());
    EXPECT_THAT(textsOf(m_settings.file), Not(Contains(testing::HasSubstr("<"))));
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST_F(LogLoadTest, NoLineIsLongerThanItsBound)
{
    configure();
    log(LogSeverity::Error, std::string(MAX_LOG_LINE_BYTES, 'a'));
    log(LogSeverity::Error, std::string(MAX_LOG_LINE_BYTES, '\xFF'), 2);
    flush();
    const Lines lines = linesOf(m_settings.file);
    ASSERT_EQ(2u, lines.size());
    for (const std::string& line : lines) {
        EXPECT_LT(line.size(), MAX_LOG_LINE_BYTES); // the line break is one byte more
        EXPECT_GT(line.size(), MAX_LOG_LINE_BYTES - 50);
        EXPECT_TRUE(line.ends_with("... (4096 bytes)")) << line;
    }
}

TEST_F(LogLoadTest, AnExitLosesNothingAndDestructorsStillLog)
{
    constexpr int CALLS = 3000;
    m_settings.burst = 0;
    QmTest::ChildProcess child([&]() -> int {
        // It runs after the log's own handler, because it was registered before that.
        std::atexit([] { log(LogSeverity::Notice, "from a destructor"); });
        configure();
        for (int i = 0; i < CALLS; ++i)
            log(LogSeverity::Error, "text");
        log(LogSeverity::Error, "last");
        std::exit(7);
    });
    ASSERT_EQ(7, child.exitCode());
    const Lines texts = textsOf(m_settings.file);
    ASSERT_EQ(CALLS + 2u, texts.size());
    EXPECT_EQ("[error] last", texts[CALLS]);
    EXPECT_EQ("[notice] from a destructor", texts.back());
}

TEST_F(LogLoadTest, AFlushBeforeTheEndSavesTheLineThatExplainsIt)
{
    m_settings.burst = 1;
    QmTest::ChildProcess child([&]() -> int {
        configure();
        for (int i = 0; i < 3; ++i)
            log(LogSeverity::Error, "why");
        factory().flush(LoggerFactory::LAST_FLUSH);
        std::abort();
    });
    EXPECT_EQ(-SIGABRT, child.exitCode());
    EXPECT_THAT(textsOf(m_settings.file),
                ElementsAre("[error] why", "[error] why ... and 2 more like this"));
}

TEST_F(LogLoadTest, AForkedChildLogsWithoutTheThread)
{
    configure();
    log(LogSeverity::Error, "parent");
    QmTest::ChildProcess child([&] {
        for (int i = 0; i < 100; ++i) // no thread, no limit
            log(LogSeverity::Error, "child");
        return factory().flush(std::chrono::milliseconds(0)) ? 0 : 1;
    });
    EXPECT_EQ(0, child.exitCode());
    log(LogSeverity::Error, "parent again", 2);
    flush();
    const auto calls = callsOf(textsOf(m_settings.file));
    EXPECT_EQ(100u, calls.at("[error] child"));
    EXPECT_EQ(1u, calls.at("[error] parent"));
    EXPECT_EQ(1u, calls.at("[error] parent again"));
}

#ifndef __SANITIZE_THREAD__ // it allows no new thread after this fork
TEST_F(LogLoadTest, AForkedChildThatConfiguresGetsItsOwnThread)
{
    configure();
    m_settings.file = m_temporary.path("child.log");
    m_settings.burst = 1;
    QmTest::ChildProcess child([&] {
        configure();
        log(LogSeverity::Error, "text");
        log(LogSeverity::Error, "text");
        return factory().flush(FLUSH_LIMIT) ? 0 : 1;
    });
    EXPECT_EQ(0, child.exitCode());
    EXPECT_THAT(textsOf(m_settings.file),
                ElementsAre("[error] text", "[error] text ... and 1 more like this"));
}
#endif

TEST_F(LogLoadTest, ForksDuringAFloodLeaveNoLockBehind)
{
    configure();
    std::atomic<bool> ends{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (unsigned i = 0; !ends; ++i) {
                factory().getLogger(i % 100);
                log(LogSeverity::Error, "flood", t);
            }
        });
    for (int i = 0; i < 50; ++i) {
        QmTest::ChildProcess child([&] {
            factory().getLogger(1000);
            log(LogSeverity::Notice, "child", 1000);
            return 0;
        });
        ASSERT_EQ(0, child.exitCode());
    }
    ends = true;
    for (std::thread& thread : threads)
        thread.join();
    flush();
    EXPECT_EQ(50u, callsOf(textsOf(m_settings.file)).at("[notice] child"));
}

} // namespace
