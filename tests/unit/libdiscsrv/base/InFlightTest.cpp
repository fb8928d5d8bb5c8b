// The bound on operations that run at the same time.

#include "InFlight.h"

#include <atomic>
#include <optional>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

TEST(InFlightTest, AsManyAreAdmittedAsThereArePlaces)
{
    InFlightBound bound(2);
    const InFlight first(bound);
    EXPECT_TRUE(first.isAdmitted());
    {
        const InFlight second(bound);
        EXPECT_TRUE(second.isAdmitted());
        EXPECT_FALSE(InFlight(bound).isAdmitted());
    }
    EXPECT_TRUE(InFlight(bound).isAdmitted()) << "its place is free again";
}

TEST(InFlightTest, OneThatWasRefusedKeepsNobodyOut)
{
    InFlightBound bound(1);
    std::optional<InFlight> running;
    running.emplace(bound);
    const InFlight refused(bound); // it stays alive while its caller logs the refusal
    EXPECT_FALSE(refused.isAdmitted());
    running.reset();
    EXPECT_TRUE(InFlight(bound).isAdmitted());
}

TEST(InFlightTest, ARefusedOneGivesNoPlaceBack)
{
    InFlightBound bound(1);
    const InFlight running(bound);
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(InFlight(bound).isAdmitted());
}

TEST(InFlightTest, NeverMoreThanThePlacesFromAnyNumberOfThreads)
{
    constexpr int MOST = 2;
    InFlightBound bound(MOST);
    std::atomic<int> inside{0};
    std::atomic<int> admitted{0};
    std::atomic<bool> tooMany{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int j = 0; j < 2000; ++j) {
                const InFlight inFlight(bound);
                if (!inFlight.isAdmitted())
                    continue;
                ++admitted;
                if (++inside > MOST)
                    tooMany = true;
                --inside;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_FALSE(tooMany);
    EXPECT_GT(admitted, 0);
    const InFlight first(bound);
    const InFlight second(bound);
    EXPECT_TRUE(first.isAdmitted() && second.isAdmitted()) << "all places are free again";
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
