// Reference counts and their holders: who owns an object, and when it ends.

#include <tlx/RefCounted.h>

#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

using namespace Veltrane::Quillmark::Tlx;

namespace {

class Object : public virtual TLXRefCounted
{
  public:
    explicit Object(int& destroyed) : m_destroyed(&destroyed) {}
    int value = 7;

  protected:
    ~Object() override { ++*m_destroyed; }

  private:
    int* m_destroyed;
};

class Side : public virtual TLXRefCounted
{
};

/// Has two bases with a count. They share one count.
class Derived : public Object, public Side
{
  public:
    using Object::Object;
};

using Holder = AutoDereference<Object>;

static_assert(!std::is_convertible_v<Object*, Holder>, "adopting a pointer is said aloud");
static_assert(std::is_nothrow_move_constructible_v<Holder>);

class RefCountedTest : public testing::Test
{
  protected:
    int m_destroyed = 0;
};

TEST_F(RefCountedTest, anObjectIsBornWithTheReferenceOfItsCreator)
{
    auto* const object = new Object(m_destroyed);
    EXPECT_EQ(1u, object->referenceCount());
    object->referenceObject();
    EXPECT_EQ(2u, object->referenceCount());
    object->dereferenceObject();
    EXPECT_EQ(1u, object->referenceCount());
    EXPECT_EQ(0, m_destroyed);
    object->dereferenceObject();
    EXPECT_EQ(1, m_destroyed);
}

TEST_F(RefCountedTest, aConstPointerCountsToo)
{
    const Object* const object = new Object(m_destroyed);
    object->referenceObject();
    object->dereferenceObject();
    object->dereferenceObject();
    EXPECT_EQ(1, m_destroyed);
}

TEST_F(RefCountedTest, aCopyOfAnObjectHasACountOfItsOwn)
{
    const Holder original(new Object(m_destroyed));
    const Holder second(original);
    ASSERT_EQ(2u, original->referenceCount());
    {
        const Holder copy(new Object(*original));
        EXPECT_EQ(1u, copy->referenceCount());
        *copy = *original;
        EXPECT_EQ(1u, copy->referenceCount());
        EXPECT_EQ(2u, original->referenceCount());
    }
    EXPECT_EQ(1, m_destroyed);
}

TEST_F(RefCountedTest, oneCountHoweverManyBasesBroughtIt)
{
    auto* const object = new Derived(m_destroyed);
    Side* const side = object;
    side->referenceObject();
    EXPECT_EQ(2u, object->referenceCount());
    object->dereferenceObject();
    side->dereferenceObject();
    EXPECT_EQ(1, m_destroyed);
}

TEST_F(RefCountedTest, aHolderAdoptsAndGivesBack)
{
    {
        const Holder holder(new Object(m_destroyed));
        EXPECT_EQ(1u, holder->referenceCount());
        EXPECT_EQ(7, (*holder).value);
        EXPECT_TRUE(holder);
    }
    EXPECT_EQ(1, m_destroyed);
}

TEST_F(RefCountedTest, anEmptyHolderHoldsNothing)
{
    Holder empty;
    EXPECT_FALSE(empty);
    EXPECT_EQ(nullptr, empty.get());
    const Holder copy(empty);
    EXPECT_FALSE(copy);
    EXPECT_FALSE(Holder(nullptr));
    EXPECT_FALSE(Holder::share(nullptr));
    empty.reset();
    empty.refObject(nullptr);
    EXPECT_EQ(nullptr, empty.release());
}

TEST_F(RefCountedTest, sharingTakesAReferenceOfItsOwn)
{
    auto* const object = new Object(m_destroyed);
    {
        const Holder shared = Holder::share(object);
        EXPECT_EQ(2u, object->referenceCount());
        Holder another;
        another.refObject(object);
        EXPECT_EQ(3u, object->referenceCount());
        another.refObject(object); // the reference that it holds itself
        EXPECT_EQ(3u, object->referenceCount());
    }
    EXPECT_EQ(1u, object->referenceCount());
    object->dereferenceObject();
    EXPECT_EQ(1, m_destroyed);
}

TEST_F(RefCountedTest, copiesShareAndMovesHandOver)
{
    Holder first(new Object(m_destroyed));
    Object* const object = first.get();
    Holder second(first);
    EXPECT_EQ(2u, object->referenceCount());
    Holder third(std::move(first));
    EXPECT_EQ(2u, object->referenceCount());
    EXPECT_FALSE(first);
    first = second;
    EXPECT_EQ(3u, object->referenceCount());
    second = std::move(third);
    EXPECT_EQ(2u, object->referenceCount());
    second = *&second; // itself
    EXPECT_EQ(2u, object->referenceCount());
    first.reset();
    second = Holder();
    EXPECT_EQ(1, m_destroyed);
}

TEST_F(RefCountedTest, assigningDropsWhatWasHeld)
{
    int other = 0;
    Holder holder(new Object(m_destroyed));
    holder = Holder(new Object(other));
    EXPECT_EQ(1, m_destroyed);
    EXPECT_EQ(0, other);
    holder.reset(new Object(m_destroyed));
    EXPECT_EQ(1, other);
    EXPECT_EQ(1u, holder->referenceCount());
}

TEST_F(RefCountedTest, aHolderOfTheBaseSharesFromOneOfTheDerived)
{
    const AutoDereference<Derived> derived(new Derived(m_destroyed));
    {
        const Holder base(derived);
        EXPECT_EQ(derived.get(), base.get());
        EXPECT_EQ(2u, derived->referenceCount());
    }
    EXPECT_EQ(1u, derived->referenceCount());
}

TEST_F(RefCountedTest, releaseHandsTheReferenceToTheCaller)
{
    Object* object = nullptr;
    {
        Holder holder(new Object(m_destroyed));
        object = holder.release();
        EXPECT_FALSE(holder);
    }
    EXPECT_EQ(0, m_destroyed);
    EXPECT_EQ(1u, object->referenceCount());
    object->dereferenceObject();
    EXPECT_EQ(1, m_destroyed);
}

TEST_F(RefCountedTest, manyThreadsAndTheLastOneDeletesIt)
{
    Holder holder(new Object(m_destroyed));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([own = Holder(holder)] {
            for (int i = 0; i < 10000; ++i) {
                const Holder copy(own);
                copy->referenceObject();
                copy->dereferenceObject();
            }
        });
    holder.reset();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(1, m_destroyed);
}

} // namespace
