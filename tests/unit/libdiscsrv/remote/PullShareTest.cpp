// How the hosts share the places for pulls.

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "PullShare.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

struct PullShareTest : testing::Test
{
    /// Begins as many pulls from a host as may run. Returns their number.
    std::size_t fill(const std::string& host)
    {
        std::size_t number = 0;
        for (;; ++number) {
            auto next = std::make_unique<PullShare::Pull>(share, host);
            if (!next->isAdmitted())
                return number;
            running.push_back(std::move(next));
        }
    }
    PullShare share{32};
    std::vector<std::unique_ptr<PullShare::Pull>> running;
};

TEST_F(PullShareTest, EachHostTakesHalfOfWhatIsFree)
{
    EXPECT_EQ(fill("one"), 16u);
    EXPECT_EQ(share.runningFrom("one"), 16u);
    EXPECT_EQ(fill("two"), 8u);
    EXPECT_EQ(fill("three"), 4u);
    EXPECT_EQ(fill("four"), 2u);
    EXPECT_EQ(fill("five"), 1u);
    EXPECT_EQ(fill("six"), 1u);
    EXPECT_EQ(fill("seven"), 0u);
    EXPECT_EQ(running.size(), 32u);
}

TEST_F(PullShareTest, AnEndedPullMakesRoom)
{
    fill("one");
    running.pop_back();
    EXPECT_EQ(share.runningFrom("one"), 15u);
    EXPECT_EQ(fill("one"), 1u);
    running.clear();
    EXPECT_EQ(share.runningFrom("one"), 0u);
    EXPECT_EQ(fill("two"), 16u);
}

TEST_F(PullShareTest, ThirtyTwoThreads)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 32; ++i)
        threads.emplace_back([this, i] {
            for (int round = 0; round < 1000; ++round)
                const PullShare::Pull pull(share, "host" + std::to_string((i + round) % 5));
        });
    for (std::thread& each : threads)
        each.join();
    EXPECT_EQ(fill("one"), 16u) << "all places are free again";
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
