// The recursive lock that an object carries.

#include <tlx/Lockable.h>

#include <atomic>
#include <thread>
#include <type_traits>

#include <gtest/gtest.h>

using namespace Veltrane::Quillmark::Tlx;

namespace {

struct Account : TlxLockable
{
    long amount = 0;
};

static_assert(!std::is_copy_constructible_v<TlxLockable>);
static_assert(!std::is_copy_constructible_v<LockableGuard>);

TEST(LockableTest, theLockIsRecursive)
{
    const Account account; // a const object locks too
    const LockableGuard outer(account);
    const LockableGuard inner(account);
    EXPECT_TRUE(outer.locked());
    EXPECT_TRUE(inner.locked());
}

TEST(LockableTest, anInnerGuardThatGoesLeavesTheOuterOnesLock)
{
    Account account;
    std::atomic<bool> left{false};
    bool sawItLeft = false;
    std::thread thread;
    {
        const LockableGuard outer(account);
        {
            const LockableGuard inner(account);
        }
        thread = std::thread([&] {
            const LockableGuard guard(account);
            sawItLeft = left;
            account.amount = 2;
        });
        account.amount = 1;
        left = true;
    }
    thread.join();
    EXPECT_TRUE(sawItLeft);
    EXPECT_EQ(2, account.amount);
}

TEST(LockableTest, threadsDoNotMeetInside)
{
    Account account;
    const auto work = [&account] {
        for (int i = 0; i < 20000; ++i) {
            const LockableGuard guard(account);
            ++account.amount;
        }
    };
    std::thread one(work);
    std::thread two(work);
    one.join();
    two.join();
    EXPECT_EQ(40000, account.amount);
}

TEST(LockableTest, everyObjectHasALockOfItsOwn)
{
    const Account one;
    const Account two;
    const LockableGuard guard(one);
    bool locked = false;
    std::thread thread([&] {
        const LockableGuard other(two);
        locked = other.locked();
    });
    thread.join(); // would never end if the lock were shared
    EXPECT_TRUE(locked);
}

} // namespace
