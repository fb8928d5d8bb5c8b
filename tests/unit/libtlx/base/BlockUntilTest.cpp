// Waiting for the end of objects, and guarded calls of foreign code.

#include <tlx/BlockUntil.h>

#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include <tlx/ForeignCode.h>

#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx {
namespace {

using namespace std::chrono_literals;
using QmTest::Lines;
using QmTest::LogCapture;

struct Thing : TLXBlocking
{
  protected:
    ~Thing() override = default;
};

TEST(BlockUntilTest, WithoutObjectsTheWaitReturnsAtOnce)
{
    const TLXBlockUntil blocker;
    blocker.wait();
    EXPECT_EQ(blocker.left(), 0u);
}

TEST(BlockUntilTest, WaitsUntilTheLastReferenceGoes)
{
    TLXBlockUntil blocker;
    AutoDereference<Thing> one(new Thing);
    AutoDereference<Thing> shared(one);
    blocker.add(*one);
    EXPECT_EQ(blocker.left(), 1u);
    one.reset();
    EXPECT_EQ(blocker.left(), 1u);
    std::thread last([&] { shared.reset(); });
    blocker.wait();
    EXPECT_EQ(blocker.left(), 0u);
    last.join();
}

TEST(BlockUntilTest, TwoMayWaitForOneObjectAndTheObjectMayOutliveThem)
{
    AutoDereference<Thing> thing(new Thing);
    TLXBlockUntil first;
    first.add(*thing);
    {
        TLXBlockUntil second;
        second.add(*thing);
    }
    thing.reset();
    EXPECT_EQ(first.left(), 0u);
}

TEST(ForeignCodeTest, WhatItThrowsBecomesALine)
{
    const LogCapture log;
    EXPECT_TRUE(callForeignCode("op", "Code", [] {}));
    EXPECT_EQ(log.lines().size(), 0u);
    EXPECT_FALSE(callForeignCode("op", "Code", [] { throw std::runtime_error("why"); }));
    EXPECT_FALSE(callForeignCode("op", "Code", [] { throw 1; }));
    EXPECT_EQ(log.texts(1),
              (Lines{"Code failed: why", "Code failed: it threw something that is no exception"}));
    EXPECT_EQ(log.lines()[0].operation, "op");
}

TEST(ForeignCodeTest, SeveralThatHangAreEachNamed)
{
    setForeignCodePatience(20ms);
    const LogCapture log;
    const auto named = [&log](const std::string& what) {
        return log.has(1, what + " has not come back for 0 seconds");
    };
    const auto hang = [&named](const char* what) {
        return callForeignCode("op", what, [&] {
            const auto giveUp = std::chrono::steady_clock::now() + 20s;
            while (!named(what) && std::chrono::steady_clock::now() < giveUp)
                std::this_thread::sleep_for(1ms);
        });
    };
    std::thread one([&] { hang("One"); });
    std::thread two([&] { hang("Two"); });
    one.join();
    two.join();
    EXPECT_TRUE(named("One"));
    EXPECT_TRUE(named("Two"));
    // The thread of the watch has ended. The watch also covers a later call.
    hang("Three");
    EXPECT_TRUE(named("Three"));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
