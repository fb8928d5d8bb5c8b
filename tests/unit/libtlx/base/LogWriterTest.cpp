// The log's thread and its queue: order, bounds, an output that hangs, the stop.

#include "../../../../libtlx/lib/base/LogWriter.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Lines.h"

using namespace Veltrane::Quillmark::Tlx;
using QmTest::Lines;
using testing::ElementsAre;
using testing::Not;

namespace {

/// Only a thread that hangs takes this long.
constexpr std::chrono::seconds HANG_LIMIT{60};

/// The lines that reached an output. It can be told to hang, like a disk that does not answer.
class Collected
{
  public:
    void take(const std::string& body)
    {
        std::unique_lock lock(m_mutex);
        ++m_inside;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return !m_hangs; });
        --m_inside;
        m_lines.push_back(body);
        m_changed.notify_all();
    }
    void hang(bool hangs)
    {
        const std::lock_guard guard(m_mutex);
        m_hangs = hangs;
        m_changed.notify_all();
    }
    /// Waits until a thread hangs in the output.
    bool awaitHang()
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, HANG_LIMIT, [this] { return m_inside > 0; });
    }
    bool awaitLines(std::size_t lines)
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, HANG_LIMIT, [&] { return m_lines.size() >= lines; });
    }
    Lines lines() const
    {
        const std::lock_guard guard(m_mutex);
        return m_lines;
    }

  private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    Lines m_lines;
    int m_inside = 0;
    bool m_hangs = false;
};

struct CollectingOutput : LogDestination
{
    explicit CollectingOutput(Collected& to) : collected(to) {}
    bool write(const LogRecord& record) override
    {
        if (record.body.ends_with("unlucky")) {
            ++unlucky;
            return false;
        }
        collected.take(record.body);
        return true;
    }
    void finish() override
    {
        if (unlucky > 0)
            collected.take("] " + std::to_string(unlucky) + " unlucky lines");
        unlucky = 0;
    }
    int unlucky = 0;
    Collected& collected;
};

class LogWriterTest : public testing::Test
{
  protected:
    LogWriterTest()
    {
        m_settings.burst = 0;
        m_settings.second = std::chrono::milliseconds(0); // only the tests end a second
    }
    ~LogWriterTest() override { m_collected.hang(false); }

    void configure()
    {
        const auto done = m_writer.configure(
            m_settings, [this] { return std::make_unique<CollectingOutput>(m_collected); });
        ASSERT_TRUE(done) << done.error();
    }
    void log(const std::string& text, int line = 1)
    {
        m_writer.write(400, {"op", 1, LogSeverity::Error, {"../A", line}}, text);
    }
    void flush() { ASSERT_TRUE(m_writer.flush(HANG_LIMIT)); }
    /// The texts without what is in front of them.
    static Lines textsOf(const Lines& lines)
    {
        Lines texts;
        for (const std::string& line : lines)
            texts.push_back(line.substr(line.find("] ") + 2));
        return texts;
    }
    Lines texts() const { return textsOf(m_collected.lines()); }

    LogSettings m_settings;
    Collected m_before;
    Collected m_collected;
    LogWriter m_writer{std::make_unique<CollectingOutput>(m_before)};
};

TEST_F(LogWriterTest, BeforeConfigureALineIsWrittenAtOnce)
{
    for (int i = 0; i < 100; ++i)
        log("text");
    EXPECT_EQ(100u, m_before.lines().size());
    EXPECT_TRUE(m_writer.flush(std::chrono::milliseconds(0)));
}

TEST_F(LogWriterTest, TheLinesOfOneThreadKeepTheirOrder)
{
    configure();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([this, t] {
            for (int i = 0; i < 500; ++i)
                log(std::to_string(t) + " " + std::to_string(10000 + i));
        });
    for (std::thread& thread : threads)
        thread.join();
    flush();
    Lines lines = texts();
    ASSERT_EQ(2000u, lines.size());
    std::stable_sort(lines.begin(), lines.end(),
                     [](const auto& a, const auto& b) { return a[0] < b[0]; });
    EXPECT_TRUE(std::is_sorted(lines.begin(), lines.end()));
}

TEST_F(LogWriterTest, ALineCarriesTheThreadOfItsCaller)
{
    configure();
    std::string expected;
    std::thread([&] {
        expected = "1 400 " + std::to_string(LogCaller::here().thread) + " op [error] text";
        log("text");
    }).join();
    flush();
    EXPECT_THAT(m_collected.lines(), ElementsAre(expected));
    EXPECT_THAT(expected, Not(testing::HasSubstr(std::to_string(LogCaller::here().thread))));
}

TEST_F(LogWriterTest, AnOutputThatHangsStopsNoCaller)
{
    m_settings.patience = std::chrono::milliseconds(1);
    configure();
    m_collected.hang(true);
    log("first");
    ASSERT_TRUE(m_collected.awaitHang());
    for (std::size_t i = 0; i < LogWriter::MAX_QUEUED_LINES; ++i)
        log("queued");
    EXPECT_EQ(0u, m_writer.counters().lost);
    for (int i = 0; i < 7; ++i)
        log("lost");
    EXPECT_EQ(7u, m_writer.counters().lost);
    EXPECT_FALSE(m_writer.flush(std::chrono::milliseconds(1)));

    m_collected.hang(false);
    flush();
    log("last");
    flush();
    const Lines lines = texts();
    EXPECT_EQ("first", lines.front());
    EXPECT_EQ("last", lines.back());
    EXPECT_EQ(LogWriter::MAX_QUEUED_LINES + 3, lines.size());
    EXPECT_THAT(lines, Not(testing::Contains("lost")));
    EXPECT_THAT(lines, testing::Contains(
                           "7 lines were lost, because the log could not write them in time"));
    EXPECT_EQ(7u, m_writer.counters().lost);
}

TEST_F(LogWriterTest, ACallerWaitsForRoomWhileLinesAreWritten)
{
    m_settings.patience = HANG_LIMIT;
    configure();
    m_collected.hang(true);
    log("first");
    ASSERT_TRUE(m_collected.awaitHang());
    for (std::size_t i = 0; i < LogWriter::MAX_QUEUED_LINES; ++i)
        log("queued");
    std::thread waits([this] { log("waited"); });
    m_collected.hang(false);
    waits.join();
    flush();
    EXPECT_EQ("waited", texts().back());
    EXPECT_EQ(0u, m_writer.counters().lost);
}

TEST_F(LogWriterTest, ALineThatTheOutputLosesIsCounted)
{
    log("unlucky");
    EXPECT_EQ(1u, m_writer.counters().lost);
    configure();
    log("unlucky");
    log("lucky");
    flush();
    EXPECT_EQ(2u, m_writer.counters().lost);
    EXPECT_THAT(texts(), ElementsAre("lucky"));
}

TEST_F(LogWriterTest, TheThreadSumsUpAFloodWithoutAnotherLine)
{
    m_settings.burst = 2;
    m_settings.second = std::chrono::milliseconds(1);
    configure();
    // The second may end at any time, so there are more lines than two bursts.
    for (int i = 0; i < 1000; ++i)
        log("text");
    unsigned long long written = 0;
    unsigned long long summed = 0;
    for (std::size_t seen = 1; written + summed < 1000; ++seen) {
        ASSERT_TRUE(m_collected.awaitLines(seen)) << written << " " << summed;
        const std::string text = texts().at(seen - 1);
        std::smatch match;
        if (std::regex_match(text, match,
                             std::regex("text \\.\\.\\. and ([0-9,]+) more like this")))
            summed += std::stoull(std::regex_replace(match[1].str(), std::regex(","), ""));
        else
            ++written;
    }
    EXPECT_EQ(1000u, written + summed);
    EXPECT_EQ(summed, m_writer.counters().summedUp);
}

TEST_F(LogWriterTest, FlushAndConfigureAndTheStopWriteThePendingSums)
{
    m_settings.burst = 1;
    configure();
    log("text");
    log("text");
    flush();
    EXPECT_THAT(texts(), ElementsAre("text", "text ... and 1 more like this"));
    log("text");
    configure();
    EXPECT_EQ(3u, m_collected.lines().size());
    log("text");
    log("text");
    m_writer.stop();
    EXPECT_EQ("text ... and 2 more like this", texts().back());
    EXPECT_EQ(4u, m_collected.lines().size());
    log("after the stop");
    EXPECT_EQ("after the stop", texts().back());
}

TEST_F(LogWriterTest, AStopDuringAFloodLosesNothing)
{
    constexpr unsigned long long CALLS = 1000;
    constexpr int THREADS = 8;
    m_settings.burst = 5;
    m_settings.patience = HANG_LIMIT;
    configure();
    std::atomic<unsigned> called{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t)
        threads.emplace_back([&, t] {
            for (unsigned i = 0; i < CALLS; ++i) {
                log("flood");
                log("rare", 1000 + t * static_cast<int>(CALLS) + static_cast<int>(i));
                ++called;
                called.notify_all();
            }
        });
    for (unsigned seen = called; seen < CALLS; seen = called)
        called.wait(seen);
    m_writer.stop();
    for (std::thread& thread : threads)
        thread.join();
    unsigned long long rare = 0;
    unsigned long long flood = 0;
    const std::regex sum("(rare|flood) \\.\\.\\. and ([0-9,]+) more like this");
    for (const std::string& text : texts()) {
        std::smatch match;
        if (std::regex_match(text, match, sum))
            (match[1] == "rare" ? rare : flood) +=
                std::stoull(std::regex_replace(match[2].str(), std::regex(","), ""));
        else
            ++(text == "rare" ? rare : flood);
    }
    EXPECT_EQ(THREADS * CALLS, flood);
    EXPECT_EQ(THREADS * CALLS, rare);
    EXPECT_EQ(0u, m_writer.counters().lost);
}

TEST_F(LogWriterTest, TheOutputEndsAfterTheLastLineAndTheSums)
{
    m_settings.burst = 1;
    configure();
    log("unlucky", 2);
    log("text");
    log("text");
    m_writer.stop();
    EXPECT_THAT(texts(), ElementsAre("text", "text ... and 1 more like this", "1 unlucky lines"));
    EXPECT_EQ(1u, m_writer.counters().lost);
}

TEST_F(LogWriterTest, AStopThatEndsTooEarlyCountsTheLinesThatWait)
{
    m_settings.patience = HANG_LIMIT;
    configure();
    m_collected.hang(true);
    log("first");
    ASSERT_TRUE(m_collected.awaitHang());
    for (int i = 0; i < 5; ++i)
        log("queued");
    m_writer.stop(std::chrono::milliseconds(1));
    EXPECT_EQ(5u, m_writer.counters().lost);
    // If the output goes on, it gets the number.
    m_collected.hang(false);
    ASSERT_TRUE(m_collected.awaitLines(2));
    m_writer.stop(HANG_LIMIT);
    EXPECT_THAT(
        texts(),
        ElementsAre("first", "5 lines were lost, because the log could not write them in time"));
    EXPECT_EQ(5u, m_writer.counters().lost);
}

TEST_F(LogWriterTest, ALineThatIsLostWhileTheLogStopsIsReported)
{
    m_settings.patience = std::chrono::milliseconds(1);
    configure();
    m_collected.hang(true);
    log("first");
    ASSERT_TRUE(m_collected.awaitHang());
    m_writer.stop(std::chrono::milliseconds(1));
    log("too late"); // it waits for the end of the thread, in vain
    EXPECT_EQ(1u, m_writer.counters().lost);
    m_collected.hang(false);
    m_writer.stop(HANG_LIMIT);
    EXPECT_THAT(
        texts(),
        ElementsAre("first", "1 lines were lost, because the log could not write them in time"));
}

TEST_F(LogWriterTest, AConfigurationThatFailsChangesNothing)
{
    configure();
    const auto done = m_writer.configure(
        {}, []() -> std::unique_ptr<LogDestination> { throw std::runtime_error("no disk"); });
    ASSERT_FALSE(done);
    EXPECT_EQ("no disk", done.error());
    for (unsigned i = 0; i < 100; ++i)
        log("still without a limit");
    flush();
    EXPECT_EQ(100u, m_collected.lines().size());
}

TEST_F(LogWriterTest, AfterTheStopItCanBeConfiguredAgain)
{
    configure();
    m_writer.stop();
    m_writer.stop();
    m_settings.burst = 1;
    configure();
    log("text");
    log("text");
    flush();
    EXPECT_THAT(texts(), ElementsAre("text", "text ... and 1 more like this"));
}

} // namespace
