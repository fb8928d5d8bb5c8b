// The logger: the bytes of a line, levels and staleness, rotation, and a disk that fills up.

#include <tlx/Log.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Capture.h"
#include "support/TemporaryDirectory.h"

using namespace Veltrane::Quillmark::Tlx;
using QmTest::linesOf;
using testing::ElementsAre;
using testing::MatchesRegex;

namespace {

const std::string TIME_PATTERN = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\."
                                 "[0-9]{3}[+-][0-9]{2}:[0-9]{2}";

/// Only a log that hangs takes this long.
constexpr std::chrono::seconds LIMIT{60};

class LogTest : public testing::Test
{
  protected:
    LogTest()
    {
        m_settings.file = path("qm.log");
        m_settings.toStderr = false;
    }

    std::string path(const std::string& name) const { return m_temporary.path(name); }

    void configure()
    {
        const auto configured = LoggerFactory::instance().configure(m_settings);
        ASSERT_TRUE(configured) << configured.error();
    }

    /// Why the settings are refused; empty when they are taken.
    static std::string whyRefused(const LogSettings& settings)
    {
        const auto configured = LoggerFactory::instance().configure(settings);
        return configured ? "" : configured.error();
    }

    /// The lines of a file, after all that was logged is written.
    static QmTest::Lines written(const std::string& file)
    {
        flush();
        return linesOf(file);
    }
    /// The same without the time and the thread id: "LEVEL ORIGINATOR OPERATION [SEVERITY] TEXT".
    static std::vector<std::string> contentOf(const std::string& file)
    {
        static const std::regex pattern("(" + TIME_PATTERN + ") ([0-9]+ [0-9]+) [0-9]+ (.*)");
        std::vector<std::string> result;
        for (const std::string& line : written(file)) {
            std::smatch match;
            result.push_back(std::regex_match(line, match, pattern)
                                 ? match[2].str() + " " + match[3].str()
                                 : "MALFORMED: " + line);
        }
        return result;
    }
    static void flush() { EXPECT_TRUE(LoggerFactory::instance().flush(LIMIT)); }
    static Logger* logger(unsigned originator = 400)
    {
        return LoggerFactory::instance().getLogger(originator);
    }

    const QmTest::TemporaryDirectory m_temporary;
    const std::string m_directory = m_temporary.path().string();
    LogSettings m_settings;
};

TEST_F(LogTest, aLineIsTimeLevelOriginatorThreadOperationText)
{
    configure();
    logger()->log("DBDiscovery::open", 1, "Cannot open it");
    const auto lines = written(m_settings.file);
    ASSERT_EQ(1u, lines.size());
    EXPECT_TRUE(std::regex_match(
        lines[0], std::regex(TIME_PATTERN + " 1 400 " + std::to_string(::syscall(SYS_gettid)) +
                             " DBDiscovery::open \\[error\\] Cannot open it")))
        << lines[0];
}

TEST_F(LogTest, theTimeIsNowInLocalTimeWithItsZone)
{
    ::setenv("TZ", "XXX-05:30", 1);
    ::tzset();
    configure();
    // The log's clock. time() may run some milliseconds behind it.
    using Clock = std::chrono::system_clock;
    const std::time_t before = Clock::to_time_t(Clock::now());
    logger()->log("op", 1, "text");
    const std::time_t after = Clock::to_time_t(Clock::now());
    const auto lines = written(m_settings.file);
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("+05:30", lines[0].substr(23, 6));
    std::tm fields = {};
    ASSERT_NE(nullptr, ::strptime(lines[0].c_str(), "%Y-%m-%dT%H:%M:%S", &fields));
    const std::time_t logged = ::timegm(&fields) - (5 * 60 + 30) * 60;
    EXPECT_LE(before, logged);
    EXPECT_GE(after, logged);
}

TEST_F(LogTest, controlCharactersCannotForgeALine)
{
    configure();
    logger()->log("op", 1, std::string("a\nb\rc\td\x1b[1m\x7f\0z", 14));
    logger()->log("o\np", 1, "C1 \xC2\x85 separators \xE2\x80\xA8 \xE2\x80\xA9.");
    EXPECT_THAT(
        contentOf(m_settings.file),
        ElementsAre(
            "1 400 op [error] a\\nb\\rc\\td\\x1B[1m\\x7F\\x00z",
            "1 400 o\\np [error] C1 \\xC2\\x85 separators \\xE2\\x80\\xA8 \\xE2\\x80\\xA9."));
}

TEST_F(LogTest, charactersThatTurnTheTextAreEscaped)
{
    configure();
    logger()->log("op", 1,
                  "a\xE2\x80\xAE"
                  "b \xE2\x81\xA6 \xE2\x80\x8F \xD8\x9C \xEF\xBB\xBF.");
    logger()->log("op", 1, "\xC2\xA0 \xE2\x80\x8B \xE2\x80\xAF \xEF\xBF\xBD");
    EXPECT_THAT(contentOf(m_settings.file),
                ElementsAre("1 400 op [error] a\\xE2\\x80\\xAEb \\xE2\\x81\\xA6 \\xE2\\x80\\x8F "
                            "\\xD8\\x9C \\xEF\\xBB\\xBF.",
                            "1 400 op [error] \xC2\xA0 \xE2\x80\x8B \xE2\x80\xAF \xEF\xBF\xBD"));
}

TEST_F(LogTest, wellFormedTextPassesAsItIsAndOtherBytesAreEscaped)
{
    configure();
    logger()->log("op", 1, "é 日 \xF0\x9F\x98\x80 back\\slash");
    // Bytes: alone, truncated, overlong, a surrogate, beyond the last code point.
    logger()->log("op", 1,
                  "\x80 \xC3 \xC0\xAF \xE0\x80\x80 \xED\xA0\x80 \xF4\x90\x80\x80 \xE6\x97");
    EXPECT_THAT(
        contentOf(m_settings.file),
        ElementsAre("1 400 op [error] é 日 \xF0\x9F\x98\x80 back\\slash",
                    "1 400 op [error] \\x80 \\xC3 \\xC0\\xAF \\xE0\\x80\\x80 \\xED\\xA0\\x80 "
                    "\\xF4\\x90\\x80\\x80 \\xE6\\x97"));
}

TEST_F(LogTest, aMissingOperationKeepsItsColumn)
{
    configure();
    logger()->log(nullptr, 1, "one");
    logger()->log("", 1, "two");
    EXPECT_THAT(contentOf(m_settings.file),
                ElementsAre("1 400 - [error] one", "1 400 - [error] two"));
}

TEST_F(LogTest, beforeConfigureLinesGoToStandardErrorAtLevelOne)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(1, LoggerFactory::instance().level());
    logger(7)->log("op", 1, "seen");
    logger(7)->log("op", 2, "not wanted");
    const std::string written = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(
        std::regex_match(written, std::regex(TIME_PATTERN + " 1 7 [0-9]+ op \\[error\\] seen\n")))
        << written;
}

TEST_F(LogTest, bothSinksGetTheLine)
{
    m_settings.toStderr = true;
    configure();
    testing::internal::CaptureStderr();
    logger()->log("op", 1, "twice");
    flush();
    const std::string written = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(std::regex_match(
        written, std::regex(TIME_PATTERN + " 1 400 [0-9]+ op \\[error\\] twice\n")));
    EXPECT_THAT(contentOf(m_settings.file), ElementsAre("1 400 op [error] twice"));
}

TEST_F(LogTest, theLevelHoldsAtOnceInEveryLogger)
{
    m_settings.level = 4;
    configure();
    Logger* const one = logger(1);
    Logger* const two = logger(2);
    EXPECT_EQ(4, one->level());
    LoggerFactory::instance().setLevel(6);
    EXPECT_EQ(6, one->level());
    EXPECT_EQ(6, two->level());
    EXPECT_EQ(6, LoggerFactory::instance().level());
    EXPECT_FALSE(one->isStale());
    one->log("op", 6, "wanted");
    LoggerFactory::instance().setLevel(5);
    one->log("op", 6, "not wanted");
    EXPECT_THAT(contentOf(m_settings.file), ElementsAre("6 1 op [debug] wanted"));
}

TEST_F(LogTest, anOriginatorHasOneLoggerUntilItIsStale)
{
    Logger* const first = logger(400);
    EXPECT_EQ(400u, first->originator());
    EXPECT_EQ(first, logger(400));
    EXPECT_NE(first, logger(401));
    EXPECT_FALSE(first->isStale());
    configure();
    EXPECT_TRUE(first->isStale());
    Logger* const second = logger(400);
    EXPECT_NE(first, second);
    EXPECT_FALSE(second->isStale());
    EXPECT_EQ(second, logger(400));
    // Callers that hold the old logger can still use it.
    first->log("op", 1, "from the stale one");
    EXPECT_THAT(contentOf(m_settings.file), ElementsAre("1 400 op [error] from the stale one"));
}

TEST_F(LogTest, aConfigurationThatFailsChangesNothing)
{
    configure();
    Logger* const before = logger();
    LogSettings wrong;
    wrong.level = 6;

    wrong.file = path("missing/qm.log");
    EXPECT_EQ(whyRefused(wrong),
              "Cannot open log file " + wrong.file + ": No such file or directory");
    EXPECT_FALSE(std::filesystem::exists(path("missing")));

    wrong.file = m_directory;
    EXPECT_EQ(whyRefused(wrong), "Cannot open log file " + wrong.file + ": Is a directory");

    wrong.file = path("fifo");
    ASSERT_EQ(0, ::mkfifo(wrong.file.c_str(), 0600));
    EXPECT_EQ(whyRefused(wrong), "Cannot open log file " + wrong.file + ": not a regular file");

    wrong.file = path("other.log");
    wrong.maxBytes = 0;
    EXPECT_EQ(whyRefused(wrong), "Cannot open log file " + wrong.file +
                                     ": the size at which it rotates must not be 0");
    EXPECT_FALSE(std::filesystem::exists(wrong.file));

    EXPECT_FALSE(before->isStale());
    EXPECT_EQ(before, logger());
    EXPECT_EQ(1, before->level());
    before->log("op", 1, "still here");
    EXPECT_THAT(contentOf(m_settings.file), ElementsAre("1 400 op [error] still here"));
}

TEST_F(LogTest, rotatesBySizeAndKeepsSoMany)
{
    m_settings.maxBytes = 200;
    m_settings.keep = 2;
    ::umask(0);
    configure();
    for (int i = 0; i < 12; ++i)
        logger()->log("op", 1, "number " + std::to_string(i) + std::string(80, '.'));
    flush();
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_directory)) {
        names.push_back(entry.path().filename());
        struct stat status = {};
        ASSERT_EQ(0, ::stat(entry.path().c_str(), &status));
        EXPECT_EQ(0640u, status.st_mode & 07777u) << entry.path();
        EXPECT_LE(status.st_size, 200) << entry.path();
    }
    EXPECT_THAT(names, testing::UnorderedElementsAre("qm.log", "qm.1.log", "qm.2.log"));
    EXPECT_THAT(contentOf(m_settings.file),
                ElementsAre("1 400 op [error] number 11" + std::string(80, '.')));
    EXPECT_THAT(contentOf(path("qm.1.log")),
                ElementsAre("1 400 op [error] number 10" + std::string(80, '.')));
}

TEST_F(LogTest, aFileThatWasThereIsContinuedWithItsTornLineEnded)
{
    std::ofstream(m_settings.file) << "torn";
    ASSERT_EQ(0, ::chmod(m_settings.file.c_str(), 0666));
    configure();
    logger()->log("op", 1, "text");
    EXPECT_THAT(contentOf(m_settings.file),
                ElementsAre("MALFORMED: torn", "1 400 op [error] text"));
    struct stat status = {};
    ASSERT_EQ(0, ::stat(m_settings.file.c_str(), &status));
    EXPECT_EQ(0640u, status.st_mode & 07777u);
}

/// Simulates a full disk: with a limit on the size of files, writes fail with EFBIG.
void limitFileSize(rlim_t bytes)
{
    rlimit limit = {};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &limit));
    limit.rlim_cur = bytes;
    ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &limit));
}

TEST_F(LogTest, aFullDiskIsNotedOnceAndWritingGoesOnWhenThereIsRoom)
{
    ::signal(SIGXFSZ, SIG_IGN);
    configure();
    // The captured standard error is a file too. It must stay below the limit.
    logger()->log("op", 1, "before" + std::string(1000, '.'));
    flush();
    const auto size = std::filesystem::file_size(m_settings.file);

    testing::internal::CaptureStderr();
    const std::string captured = [&] {
        // There is room for only ten bytes of the next line, so the line is cut.
        limitFileSize(size + 10);
        for (int i = 0; i < 3; ++i)
            logger()->log("op", 1, "missing");
        flush();
        limitFileSize(RLIM_INFINITY);
        return testing::internal::GetCapturedStderr();
    }();
    EXPECT_EQ("Logging to the file is interrupted: Failed flush to file " + m_settings.file +
                  ": File too large\n",
              captured);

    logger()->log("op", 1, "after");
    logger()->log("op", 1, "and after");
    const auto lines = contentOf(m_settings.file);
    ASSERT_EQ(5u, lines.size()) << testing::PrintToString(lines);
    EXPECT_EQ("1 400 op [error] before" + std::string(1000, '.'), lines[0]);
    EXPECT_EQ(std::string("MALFORMED: ").size() + 10, lines[1].size()) << lines[1];
    EXPECT_EQ("1 1 Logger::log [warning] 3 lines could not be written to this file", lines[2]);
    EXPECT_EQ("1 400 op [error] after", lines[3]);
    EXPECT_EQ("1 400 op [error] and after", lines[4]);
    EXPECT_EQ(3u, LoggerFactory::instance().counters().lost);
}

TEST_F(LogTest, aDirectoryThatGoesAwayDuringRotationIsSurvived)
{
    m_settings.maxBytes = 100;
    configure();
    logger()->log("op", 1, std::string(60, 'a'));
    flush();
    std::filesystem::rename(m_directory, m_directory + ".away");
    testing::internal::CaptureStderr();
    logger()->log("op", 1, std::string(60, 'b'));
    logger()->log("op", 1, std::string(60, 'c'));
    flush();
    EXPECT_EQ("Logging to the file is interrupted: Cannot open log file " + m_settings.file +
                  ": No such file or directory\n",
              testing::internal::GetCapturedStderr());
    std::filesystem::rename(m_directory + ".away", m_directory);
    logger()->log("op", 1, "back");
    EXPECT_EQ("1 400 op [error] back", contentOf(m_settings.file).back());
    // The first line filled the file. The count was written to it before the next rotation.
    EXPECT_THAT(contentOf(path("qm.1.log")),
                ElementsAre("1 1 Logger::log [warning] 2 lines could not be written to this file"));
}

/// Counts its calls, and notes whether two ran at the same time.
struct CountingSink : LogSink
{
    void write(const Line&) override
    {
        if (inside.exchange(true))
            overlapped = true;
        ++calls; // not atomic: the thread sanitizer sees an overlap too
        inside = false;
    }
    std::atomic<bool> inside{false};
    std::atomic<bool> overlapped{false};
    int calls = 0;
};

TEST_F(LogTest, aSinkIsCalledOneAtATimeFromManyThreads)
{
    const auto sink = std::make_shared<CountingSink>();
    LoggerFactory::instance().setSink(sink);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 500; ++i)
                logger()->log("op", 1, "text");
        });
    for (std::thread& thread : threads)
        thread.join();
    LoggerFactory::instance().setSink(nullptr);
    EXPECT_FALSE(sink->overlapped);
    EXPECT_EQ(2000, sink->calls);
}

TEST_F(LogTest, manyThreadsWriteWholeLinesWhileTheLogIsConfiguredAnew)
{
    m_settings.burst = 0;
    configure();
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
        threads.emplace_back([] {
            Logger* cached = logger();
            for (int i = 0; i < 300; ++i) {
                if (cached->isStale())
                    cached = logger();
                cached->log("op", 1, "text");
            }
        });
    for (int i = 0; i < 20; ++i)
        configure();
    for (std::thread& thread : threads)
        thread.join();
    const auto lines = contentOf(m_settings.file);
    EXPECT_EQ(900u, lines.size());
    EXPECT_THAT(lines, testing::Each("1 400 op [error] text"));
}

TEST_F(LogTest, aSinkOfTheCallersGetsThePartsAndNullBringsTheSettingsBack)
{
    configure();
    {
        QmTest::LogCapture capture(4);
        logger()->log("op", 4, "a\nb (source:12)");
        const auto lines = capture.lines();
        ASSERT_EQ(1u, lines.size());
        EXPECT_EQ((QmTest::LogCapture::Line{4, 400, "op", "a\nb", "source", 12}), lines[0]);
    }
    EXPECT_THAT(contentOf(m_settings.file), ElementsAre());
    logger()->log("op", 1, "back");
    EXPECT_THAT(contentOf(m_settings.file), ElementsAre("1 400 op [error] back"));
}

TEST_F(LogTest, aSinkThatThrowsOrLogsDoesNoHarm)
{
    struct Unruly : LogSink
    {
        void write(const Line& line) override
        {
            ++calls;
            logger()->log("inner", 1, "dropped");
            if (line.text == "throw")
                throw std::runtime_error("no");
        }
        int calls = 0;
    };
    const auto sink = std::make_shared<Unruly>();
    LoggerFactory::instance().setSink(sink);
    logger()->log("op", 1, "throw");
    logger()->log("op", 1, "again");
    LoggerFactory::instance().setSink(nullptr);
    EXPECT_EQ(2, sink->calls);
}

TEST_F(LogTest, theMacroAppendsThePositionAndBuildsOnlyWhatIsWanted)
{
    QmTest::LogCapture capture(1);
    int built = 0;
    TLX_LOG(logger(), 4, "op", "../DiscDB", "never " << ++built);
    EXPECT_EQ(0, built);
    const int line = __LINE__ + 1;
    TLX_LOG(logger(), 1, "op", "../DiscDB",
            "value " << 42 << " of "
                     << "it");
    const auto lines = capture.lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ((QmTest::LogCapture::Line{1, 400, "op", "value 42 of it", "../DiscDB", line}),
              lines[0]);
}

TEST_F(LogTest, theTracerWritesEnterAndLeaveAtLevelSixOnly)
{
    QmTest::LogCapture capture(6);
    {
        Tracer tracer(logger(), "DBDiscovery::open", "../DiscDB", 17);
        EXPECT_STREQ("DBDiscovery::open", tracer.name());
        logger()->log(tracer.name(), 1, "inside (../DiscDB:18)");
    }
    using Line = QmTest::LogCapture::Line;
    EXPECT_THAT(capture.lines(),
                ElementsAre(Line{6, 400, "DBDiscovery::open", "enter", "../DiscDB", 17},
                            Line{1, 400, "DBDiscovery::open", "inside", "../DiscDB", 18},
                            Line{6, 400, "DBDiscovery::open", "leave", "../DiscDB", 17}));
    capture.clear();
    LoggerFactory::instance().setLevel(5);
    {
        Tracer quiet(logger(), "op", "file", 1);
        Tracer withoutLogger(nullptr, "op", "file", 1);
    }
    EXPECT_THAT(capture.lines(), ElementsAre());
}

} // namespace
