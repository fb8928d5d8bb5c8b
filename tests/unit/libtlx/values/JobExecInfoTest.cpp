#include <gtest/gtest.h>

#include <cstdlib>

#include <ace/ARGV.h>

#include <tlx/JobExecInfo.h>

using namespace Veltrane::Quillmark::Tlx;

namespace {

using Arguments = std::vector<std::string>;

/// The arguments that a reader finds in a command line.
Arguments split(const TlxString& line)
{
    ACE_ARGV splitter(line.c_str(), false);
    int count = splitter.argc();
    ACE_Arg_Shifter shifter(count, splitter.argv());
    const AutoDereference<JobExecInfo> job(new JobExecInfo);
    job->setValue(shifter, false);
    EXPECT_FALSE(shifter.is_anything_left());
    return job->arguments();
}

TlxString commandLine(const Arguments& arguments)
{
    const AutoDereference<JobExecInfo> job(new JobExecInfo(arguments));
    return job->getCommandLine();
}

TEST(JobExecInfoTest, WithoutArgumentsTheCommandLineIsEmpty)
{
    EXPECT_EQ(commandLine({}), TlxString());
    EXPECT_EQ(split(""), Arguments{});
    EXPECT_EQ(split("  \t "), Arguments{});
}

TEST(JobExecInfoTest, PlainArgumentsStandAsTheyAre)
{
    EXPECT_EQ(commandLine({"backup", "--level=full", "/a\\b", "a#b", "$HOME"}),
              TlxString("backup --level=full /a\\b a#b $HOME"));
}

TEST(JobExecInfoTest, ArgumentsAreQuotedWhereTheyMustBe)
{
    EXPECT_EQ(commandLine({"a b", "", "it's", "say \"x\""}),
              TlxString("\"a b\" \"\" \"it's\" 'say \"x\"'"));
    // A backslash is outside the marks. A text with both marks consists of several parts.
    EXPECT_EQ(commandLine({"a\\ b\\", "'\"", "#"}), TlxString("a\\\" \"b\\ \"'\"'\"' \"#\""));
}

TEST(JobExecInfoTest, AQuotedArgumentWithBlanksIsOne)
{
    EXPECT_EQ(split("backup \"full now\" 'x  y' z\" \"w"),
              (Arguments{"backup", "full now", "x  y", "z w"}));
}

TEST(JobExecInfoTest, EveryArgumentComesBack)
{
    const std::string alphabet = " \t\n\"'\\#$a";
    // Every text of up to four characters, in front of and behind another argument.
    Arguments texts{""};
    for (std::size_t from = 0, length = 0; length < 4; ++length)
        for (const std::size_t end = texts.size(); from < end; ++from)
            for (const char c : alphabet)
                texts.push_back(texts[from] + c);
    ASSERT_EQ(texts.size(), 1u + 9 + 81 + 729 + 6561);
    for (const std::string& text : texts) {
        ASSERT_EQ(split(commandLine({text})), Arguments{text}) << "[" << text << "]";
        ASSERT_EQ(split(commandLine({text, "b c", text})), (Arguments{text, "b c", text}))
            << "[" << text << "]";
    }
    const Arguments odd{"caf\xC3\xA9", "\xE6\x97\xA5 \xE6\x9C\xAC", "\xFF \xFE",
                        std::string(5000, 'x')};
    EXPECT_EQ(split(commandLine(odd)), odd);
}

TEST(JobExecInfoTest, TheEnvironmentStaysOutOfIt)
{
    ASSERT_EQ(::setenv("QM_JOB_TEST", "seen", 1), 0);
    EXPECT_EQ(split("$QM_JOB_TEST"), Arguments{"$QM_JOB_TEST"});
}

TEST(JobExecInfoTest, NewArgumentsReplaceOrFollow)
{
    const AutoDereference<JobExecInfo> job(new JobExecInfo({"old"}));
    const auto set = [&](const char* line, bool append) {
        ACE_ARGV splitter(line, false);
        int count = splitter.argc();
        ACE_Arg_Shifter shifter(count, splitter.argv());
        job->setValue(shifter, append);
    };
    set("a b", true);
    EXPECT_EQ(job->arguments(), (Arguments{"old", "a", "b"}));
    set("c", false);
    EXPECT_EQ(job->arguments(), Arguments{"c"});
    set("", true);
    EXPECT_EQ(job->arguments(), Arguments{"c"});
    set("", false);
    EXPECT_EQ(job->arguments(), Arguments{});
}

TEST(JobExecInfoTest, OnlyWhatIsLeftInTheShifterIsTaken)
{
    ACE_ARGV splitter("program -x value rest", false);
    int count = splitter.argc();
    ACE_Arg_Shifter shifter(count, splitter.argv());
    shifter.ignore_arg();
    shifter.consume_arg();
    const AutoDereference<JobExecInfo> job(new JobExecInfo);
    job->setValue(shifter, false);
    EXPECT_EQ(job->arguments(), (Arguments{"value", "rest"}));
}

TEST(JobExecInfoTest, AnArgumentEndsAtANul)
{
    EXPECT_EQ(commandLine({std::string("a\0b", 3)}), TlxString("a"));
}

} // namespace
