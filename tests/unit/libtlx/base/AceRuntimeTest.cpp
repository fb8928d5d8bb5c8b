// ACE is initialised once and finalised once. Each case needs a process of its own.
#include <optional>
#include <thread>
#include <vector>

#include <ace/Object_Manager.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Singleton.h>

#include <gtest/gtest.h>

#include <tlx/AceRuntime.h>
#include <tlx/HostConfig.h>
#include <tlx/Orb.h>

using namespace Veltrane::Quillmark::Tlx;

namespace {

/// An object that ACE destroys when it is finalised.
struct Kept
{
    ~Kept() { ++destroyed; }
    static Kept* instance() { return ACE_Singleton<Kept, ACE_Recursive_Thread_Mutex>::instance(); }
    static int destroyed;
};
int Kept::destroyed = 0;

TEST(AceRuntimeTest, TheLastUseFinalisesAce)
{
    EXPECT_EQ(0u, AceRuntime::uses());
    std::optional<AceRuntime> outer(std::in_place);
    Kept::instance();
    {
        const AceRuntime inner;
        EXPECT_EQ(2u, AceRuntime::uses());
    }
    EXPECT_EQ(1u, AceRuntime::uses());
    EXPECT_EQ(0, Kept::destroyed);
    EXPECT_FALSE(ACE_Object_Manager::shutting_down());
    outer.reset();
    EXPECT_EQ(0u, AceRuntime::uses());
    EXPECT_EQ(1, Kept::destroyed);
}

TEST(AceRuntimeTest, AUseThatIsKeptLastsWithoutItsObject)
{
    {
        AceRuntime kept;
        Kept::instance();
        kept.keep();
    }
    EXPECT_EQ(1u, AceRuntime::uses());
    {
        const AceRuntime other;
    }
    EXPECT_EQ(1u, AceRuntime::uses());
    EXPECT_EQ(0, Kept::destroyed);
}

TEST(AceRuntimeTest, AnOrbUsesAceForItsLife)
{
    HostConfig::instance().readText("", "none");
    const AceRuntime whole;
    Kept::instance();
    {
        const Orb orb(true, "", "test", false);
        EXPECT_EQ(2u, AceRuntime::uses());
    }
    EXPECT_EQ(1u, AceRuntime::uses());
    EXPECT_EQ(0, Kept::destroyed);
}

TEST(AceRuntimeTest, AnOrbThatCannotListenFinalisesNothing)
{
    HostConfig::instance().readText("", "none");
    Kept::instance();
    EXPECT_THROW(Orb(false, "192.0.2.7:1", "test", false), OrbError);
    EXPECT_EQ(1u, AceRuntime::uses()) << "the failed attempt keeps its use";
    EXPECT_EQ(0, Kept::destroyed);
}

TEST(AceRuntimeTest, UsesOfManyThreadsAreCounted)
{
    const AceRuntime whole;
    Kept::instance();
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([] {
            for (int round = 0; round < 1000; ++round) {
                const AceRuntime use;
                EXPECT_GE(AceRuntime::uses(), 2u);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(1u, AceRuntime::uses());
    EXPECT_EQ(0, Kept::destroyed);
}

} // namespace
