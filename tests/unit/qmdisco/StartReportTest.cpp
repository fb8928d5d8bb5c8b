// Detaching: the exit code of the started process, and what the daemon keeps open.

#include "StartReport.h"

#include <cstdio>
#include <functional>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ExitCode.h"
#include "support/ChildProcess.h"

using namespace Veltrane::Quillmark::Qmdisco;

namespace {

/// Starts a process that detaches. Runs the function in the detached process. Returns the exit code
/// of the started one.
int detached(const std::function<void(StartReport&)>& daemon)
{
    QmTest::ChildProcess started([&daemon] {
        auto report = StartReport::detach();
        if (report)
            daemon(*report);
        return 99; // nobody waits for the daemon's exit code
    });
    return started.exitCode();
}

TEST(StartReport, TheStartedProcessEndsWithTheDaemonsWord)
{
    for (const int code : {EC_OK, EC_ALREADY_RUNNING, EC_STOP_LIMIT})
        EXPECT_EQ(code, detached([code](StartReport& report) { report.tell(code); }));
}

TEST(StartReport, TheFirstWordStands)
{
    EXPECT_EQ(EC_SERVICE_FAILED, detached([](StartReport& report) {
                  report.tell(EC_SERVICE_FAILED);
                  report.tell(EC_OK);
              }));
}

TEST(StartReport, ADaemonThatDiesWithoutAWordIsAFailure)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(EC_UNEXPECTED, detached([](StartReport&) { ::_exit(0); }));
    EXPECT_EQ("qmdisco: the daemon ended during its start\n",
              testing::internal::GetCapturedStderr());
}

TEST(StartReport, AFailedDaemonStillHasStandardError)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(EC_ROOT_UNUSABLE, detached([](StartReport& report) {
                  std::fputs("the one line\n", stderr);
                  report.tell(EC_ROOT_UNUSABLE);
              }));
    EXPECT_EQ("the one line\n", testing::internal::GetCapturedStderr());
}

TEST(StartReport, ARunningDaemonHoldsNothingOfItsStarter)
{
    constexpr int INHERITED = 100; // far above what the daemon opens itself
    ASSERT_EQ(INHERITED, ::dup2(STDOUT_FILENO, INHERITED));
    const pid_t session = ::getsid(0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(EC_OK, detached([&](StartReport& report) {
                  const bool closed = ::fcntl(INHERITED, F_GETFD) == -1;
                  const bool own = ::getsid(0) != ::getpid() && ::getsid(0) != session;
                  char directory[8] = "";
                  const bool top =
                      ::getcwd(directory, sizeof directory) && directory == std::string("/");
                  report.tell(closed && own && top ? EC_OK : EC_UNEXPECTED);
                  std::fputs("after the start\n", stderr);
                  std::fputs("on the way\n", stdout);
                  std::fflush(stdout);
              }));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST(StartReport, InTheForegroundAReportDoesNothing)
{
    StartReport report;
    report.tell(EC_UNEXPECTED); // neither ends nor writes
    SUCCEED();
}

} // namespace
