// The exit codes.

#include "ExitCode.h"

#include <gtest/gtest.h>

namespace Veltrane::Quillmark::Qmdiscoctl {
namespace {

TEST(CtlExitCodeTest, EachStatusHasItsOwn)
{
    EXPECT_EQ(exitCodeOf(Svc::DS_SUCCESS), 0);
    EXPECT_EQ(exitCodeOf(Svc::DS_NONE_FOUND), 11);
    EXPECT_EQ(exitCodeOf(Svc::DS_LOGIC_ERROR), 12);
    EXPECT_EQ(exitCodeOf(Svc::DS_OPEN_FAILED), 13);
    EXPECT_EQ(exitCodeOf(Svc::DS_COM_ERROR), 14);
    EXPECT_EQ(exitCodeOf(Svc::DS_DATA_EXISTS), 15);
    EXPECT_EQ(exitCodeOf(static_cast<Svc::DiscoveryStatus>(77)), EC_BROKE_OFF);
}

} // namespace
} // namespace Veltrane::Quillmark::Qmdiscoctl
