// Which request gets the next turn.

#include <atomic>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "../../../../libtlx/lib/orb/RequestQueue.h"

namespace Veltrane::Quillmark::Tlx {
namespace {

constexpr std::size_t TURNS = 8;
constexpr std::size_t SHARE = 6;
const std::string GREEDY = "192.0.2.1";
const std::string HONEST = "192.0.2.2";
const std::string OTHER = "192.0.2.3";

struct RequestQueueTest : testing::Test
{
    RequestQueue queue{TURNS, SHARE};
    RequestQueue::Key last = 0;

    /// Requests of new connections. Returns how many of them have their turn at once.
    std::size_t arrive(const std::string& peer, std::size_t count)
    {
        std::size_t turns = 0;
        for (std::size_t i = 0; i < count; ++i)
            turns += queue.arrive(++last, peer) ? 1 : 0;
        return turns;
    }
};

TEST_F(RequestQueueTest, APeerHasItsShareOfTheTurns)
{
    EXPECT_EQ(arrive(GREEDY, SHARE), SHARE);
    EXPECT_EQ(queue.counts().waiting, 0u);
    EXPECT_EQ(arrive(GREEDY, 1), 0u);
    EXPECT_EQ(queue.counts().waiting, 1u);
    EXPECT_EQ(arrive(HONEST, TURNS - SHARE), TURNS - SHARE) << "another peer has its turn at once";
    EXPECT_EQ(arrive(OTHER, 1), 0u) << "all turns are taken";
}

TEST_F(RequestQueueTest, ATryWithoutRoomLeavesTheConnectionAbsent)
{
    arrive(GREEDY, SHARE - 1);
    EXPECT_TRUE(queue.tryTurn(100, GREEDY));
    EXPECT_FALSE(queue.tryTurn(101, GREEDY));
    EXPECT_EQ(queue.counts().waiting, 0u);
    EXPECT_EQ(queue.leave(101, GREEDY), std::nullopt);
    EXPECT_EQ(queue.leave(100, GREEDY), std::nullopt);
    EXPECT_TRUE(queue.tryTurn(101, GREEDY));
    EXPECT_TRUE(queue.tryTurn(102, HONEST));
    EXPECT_TRUE(queue.tryTurn(103, HONEST));
    EXPECT_FALSE(queue.tryTurn(104, OTHER)) << "all turns are taken";
}

TEST_F(RequestQueueTest, PeersWithALineTakeTurns)
{
    arrive(GREEDY, 100); // 1 to 6 have turns
    arrive(HONEST, 4);   // 101 and 102 have turns
    EXPECT_EQ(queue.counts().waiting, 96u);
    EXPECT_EQ(queue.leave(1, GREEDY), 7u);
    EXPECT_EQ(queue.leave(2, GREEDY), 103u) << "not another one of the long line";
    EXPECT_EQ(queue.leave(7, GREEDY), 8u);
    EXPECT_EQ(queue.leave(8, GREEDY), 104u);
    EXPECT_EQ(queue.leave(3, GREEDY), 9u) << "nobody else waits";
    EXPECT_EQ(queue.counts().highest, 96u);
}

TEST_F(RequestQueueTest, AFreeTurnGoesToALineWithRoom)
{
    arrive(GREEDY, SHARE + 1);
    EXPECT_EQ(arrive(HONEST, 1), 1u);
    EXPECT_EQ(queue.leave(last, HONEST), std::nullopt) << "the greedy peer has its share";
    EXPECT_EQ(queue.leave(1, GREEDY), SHARE + 1);
}

TEST_F(RequestQueueTest, AConnectionThatIsGoneWaitsNoLonger)
{
    arrive(GREEDY, SHARE + 2);
    EXPECT_EQ(queue.leave(SHARE + 1, GREEDY), std::nullopt);
    EXPECT_EQ(queue.counts().waiting, 1u);
    EXPECT_EQ(queue.leave(1, GREEDY), SHARE + 2);
    EXPECT_EQ(queue.leave(1, GREEDY), std::nullopt) << "it has left already";
    EXPECT_EQ(queue.leave(99, HONEST), std::nullopt) << "it never came";
}

TEST_F(RequestQueueTest, IsCalmWhileMostTurnsAreFree)
{
    arrive(GREEDY, TURNS / 2 - 1);
    EXPECT_TRUE(queue.isCalm());
    arrive(GREEDY, 1);
    EXPECT_FALSE(queue.isCalm());
}

TEST_F(RequestQueueTest, ManyThreadsGetAllTheirTurns)
{
    constexpr int THREADS = 8;
    constexpr int ROUNDS = 3000;
    std::atomic<int> turns{0};
    std::atomic<int> now{0};
    std::atomic<int> most{0};
    std::vector<std::atomic<bool>> granted(THREADS);
    RequestQueue small(3, 2);
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i)
        threads.emplace_back([&, i] {
            const std::string peer = std::to_string(i % 3);
            for (int round = 0; round < ROUNDS; ++round) {
                if (!small.arrive(static_cast<RequestQueue::Key>(i), peer))
                    while (!granted[i].exchange(false))
                        std::this_thread::yield();
                const int running = ++now;
                int before = most;
                while (running > before && !most.compare_exchange_weak(before, running)) {
                }
                ++turns;
                --now;
                if (const auto next = small.leave(static_cast<RequestQueue::Key>(i), peer))
                    granted[*next] = true;
            }
        });
    for (std::thread& each : threads)
        each.join();
    EXPECT_EQ(turns, THREADS * ROUNDS);
    EXPECT_LE(most, 3);
    EXPECT_EQ(small.counts().waiting, 0u);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
