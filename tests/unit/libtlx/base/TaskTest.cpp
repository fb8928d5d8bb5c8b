#include <tlx/Task.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <stdexcept>

#include <ace/Thread.h>

#include "support/Capture.h"

#include <gtest/gtest.h>

namespace Veltrane::Quillmark::Tlx {
namespace {

using QmTest::LogCapture;
constexpr long FLAGS = THR_NEW_LWP | THR_JOINABLE;

/// Works until the test lets it end.
struct HeldTask : TlxTask
{
    ~HeldTask() override
    {
        letGo();
        wait();
    }
    int svc() override
    {
        ++begun;
        std::unique_lock guard(mutex);
        changed.wait(guard, [this] { return free; });
        if (onEnd)
            onEnd();
        return 0;
    }
    void letGo()
    {
        const std::lock_guard guard(mutex);
        free = true;
        changed.notify_all();
    }
    std::atomic<int> begun{0};
    std::function<void()> onEnd;

  private:
    std::mutex mutex;
    std::condition_variable changed;
    bool free = false;
};

TEST(TaskTest, RunsOnItsThreadsUntilTheyEnd)
{
    HeldTask task;
    EXPECT_EQ(task.running(), 0u);
    EXPECT_TRUE(task.activate(FLAGS, 3));
    EXPECT_EQ(task.running(), 3u);
    EXPECT_FALSE(task.activate(FLAGS, 1)) << "they are running";
    task.letGo();
    task.wait();
    EXPECT_EQ(task.begun, 3);
    EXPECT_EQ(task.running(), 0u);
}

TEST(TaskTest, CanBeStartedAgain)
{
    HeldTask task;
    task.letGo();
    for (int i = 1; i <= 20; ++i) {
        EXPECT_TRUE(task.activate(FLAGS, 1));
        task.wait();
        EXPECT_EQ(task.begun, i);
    }
}

TEST(TaskTest, WhatItThrowsEndsItsThreadOnly)
{
    const LogCapture log;
    for (const std::function<void()>& end : std::vector<std::function<void()>>{
             [] { throw std::runtime_error("broken"); }, [] { throw 7; }}) {
        HeldTask task;
        task.onEnd = end;
        task.letGo();
        EXPECT_TRUE(task.activate(FLAGS, 1));
        task.wait();
    }
    EXPECT_EQ(log.texts(1),
              (std::vector<std::string>{"A task failed: broken",
                                        "A task failed: it threw something that is no exception"}));
    EXPECT_EQ(log.lines()[0].operation, "TlxTask::svc");
}

TEST(TaskTest, WaitingForNothingComesBackAtOnce)
{
    HeldTask task;
    task.wait();
    EXPECT_EQ(task.running(), 0u);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
