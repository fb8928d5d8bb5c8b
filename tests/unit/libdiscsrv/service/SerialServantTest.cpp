// Requests from several connections on one object, over a real ORB on the loopback.

#include "DiscoveryIterator_i.h"

#include <atomic>
#include <memory>
#include <string>

#include <sched.h>

#include <gtest/gtest.h>

#include <tlx/HostConfig.h>
#include <tlx/Orb.h>

#include "OpenServant.h"
#include "ServiceCounters.h"
#include "support/Capture.h"
#include "support/Eventually.h"
#include "support/PeerProcess.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {
namespace {

using QmTest::eventually;

/// Another process with its own connection to the object. Commands and answers:
///
///     find IOR        "found"
///     page            how many records the next page has
///     release         "released"
///
/// A system exception is answered with its name.
class Client : public QmTest::PeerProcess
{
  public:
    Client()
        : PeerProcess([state = std::make_shared<State>()](const std::string& command) {
              try {
                  return state->perform(command);
              } catch (const CORBA::SystemException& e) {
                  return std::string(e._name());
              }
          })
    {
    }

  private:
    struct State
    {
        std::string perform(const std::string& command)
        {
            if (command.starts_with("find "))
                return find(command.substr(5));
            if (command == "release") {
                iterator->release();
                return "released";
            }
            const DiscoverySeq_var page = iterator->getNextPage();
            return std::to_string(page->length());
        }
        std::string find(const std::string& reference)
        {
            HostConfig::instance().readText("", "none");
            orb = std::make_unique<Orb>(true, "", "S", false);
            const CORBA::Object_var object = orb->getOrb()->string_to_object(reference.c_str());
            iterator = DiscoveryIterator::_narrow(object);
            if (CORBA::is_nil(iterator))
                return "not found";
            iterator->pageSize(); // makes the connection
            return "found";
        }
        std::unique_ptr<Orb> orb;
        DiscoveryIterator_var iterator;
    };
};

/// An iterator that blocks each request until the test releases it.
class HeldIterator : public DiscoveryIterator_i
{
  public:
    HeldIterator() : DiscoveryIterator_i(nullptr) {}
    DiscoverySeq* getNextPage() override
    {
        const Turn turn(*this);
        hold();
        return new DiscoverySeq;
    }
    void release() override
    {
        const Turn turn(*this);
        hold();
        DiscoveryIterator_i::release();
    }

    std::atomic<int> inside{0};
    std::atomic<int> most{0}; ///< the largest number of requests that were inside at a time
    std::atomic<bool> goOn{false};

  private:
    void hold()
    {
        const int now = ++inside;
        if (now > most)
            most = now;
        EXPECT_TRUE(eventually([this] { return goOn.load(); }));
        --inside;
    }
};

struct SerialServantTest : testing::Test
{
    /// @param answer what the clients get for their first request.
    explicit SerialServantTest(const char* owner = nullptr, const char* answer = "found")
    {
        if (owner)
            iterator->setOwner({owner, ""});
        HostConfig::instance().readText("", "none");
        orb = std::make_unique<Orb>(false, "127.0.0.1:0", "S", false);
        const CORBA::Object_var object = orb->activateServant(iterator.in());
        orb->serveRequests();
        const CORBA::String_var reference = orb->getOrb()->object_to_string(object);
        for (Client* const client : {&first, &second})
            EXPECT_EQ(client->ask("find " + std::string(reference)), answer);
    }
    /// The second client's request arrives while the first client's request is inside.
    void sendBeside(const std::string& firstRequest, const std::string& request)
    {
        first.tell(firstRequest);
        ASSERT_TRUE(eventually([this] { return iterator->inside == 1; }));
        const auto before = iterator->activity()->lastUse();
        second.tell(request);
        ASSERT_TRUE(eventually([&] { return iterator->activity()->lastUse() != before; }))
            << "the second request does not arrive";
        // Now the request has reached the servant. Give it some time to enter.
        for (int i = 0; i < 5000 && iterator->most == 1; ++i)
            ::sched_yield();
        EXPECT_FALSE(second.answers(std::chrono::milliseconds::zero()));
        iterator->goOn = true;
    }

    Client first; // forks, so it comes before the ORB
    Client second;
    const PortableServer::Servant_var<HeldIterator> iterator{new HeldIterator};
    std::unique_ptr<Orb> orb;
};

struct OwnedHereTest : SerialServantTest
{
    OwnedHereTest() : SerialServantTest("127.0.0.1") {}
};

TEST_F(OwnedHereTest, AnObjectAnswersItsOwnersHost)
{
    iterator->goOn = true;
    EXPECT_EQ(first.ask("page"), "0");
    EXPECT_EQ(second.ask("release"), "released");
}

struct OwnedElsewhereTest : SerialServantTest
{
    OwnedElsewhereTest() : SerialServantTest("192.0.2.1", "NO_PERMISSION") {}
};

TEST_F(OwnedElsewhereTest, AnObjectRefusesForeignPeersBeforeTheyReachIt)
{
    const auto lastUse = iterator->activity()->lastUse();
    const QmTest::LogCapture log;
    EXPECT_EQ(first.ask("page"), "NO_PERMISSION");
    EXPECT_EQ(second.ask("release"), "NO_PERMISSION");
    EXPECT_EQ(iterator->most, 0);
    EXPECT_EQ(iterator->activity()->lastUse(), lastUse) << "that keeps no object alive";
    EXPECT_EQ(log.texts(1), (QmTest::Lines{"Refused getNextPage of peer 127.0.0.1: a discovery "
                                           "iterator belongs to peer 192.0.2.1",
                                           "Refused release of peer 127.0.0.1: a discovery "
                                           "iterator belongs to peer 192.0.2.1"}));
    unsigned long long refused = 0;
    for (const CounterValue& counter : serviceCounters())
        if (std::string(counter.name) == "foreignUses")
            refused = counter.value;
    EXPECT_EQ(refused, 4u) << "with the first request of each client";
}

TEST(OpenServantTest, APeerIsItsCertificateOtherwiseItsAddress)
{
    EXPECT_TRUE(isSamePeer({"192.0.2.1", ""}, {"192.0.2.1", ""}));
    EXPECT_FALSE(isSamePeer({"192.0.2.1", ""}, {"192.0.2.2", ""}));
    EXPECT_TRUE(isSamePeer({"192.0.2.1", "cl1"}, {"192.0.2.2", "cl1"}));
    EXPECT_FALSE(isSamePeer({"192.0.2.1", "cl1"}, {"192.0.2.1", "cl2"}));
    EXPECT_FALSE(isSamePeer({"192.0.2.1", "cl1"}, {"192.0.2.1", ""}));
    EXPECT_FALSE(isSamePeer({"192.0.2.1", ""}, {"192.0.2.2", "192.0.2.1"}))
        << "a certificate in the form of an address is another peer";
}

TEST_F(SerialServantTest, TwoConnectionsReadOneIteratorOneAtATime)
{
    sendBeside("page", "page");
    EXPECT_EQ(first.answer(), "0");
    EXPECT_EQ(second.answer(), "0");
    EXPECT_EQ(iterator->most, 1);
}

TEST_F(SerialServantTest, AReleaseWaitsForAReadOfAnotherConnection)
{
    sendBeside("page", "release");
    EXPECT_EQ(first.answer(), "0");
    EXPECT_EQ(second.answer(), "released");
    EXPECT_EQ(iterator->most, 1);
}

TEST_F(SerialServantTest, ARequestThatWaitedForTheReleaseFindsNoObject)
{
    sendBeside("release", "page");
    EXPECT_EQ(first.answer(), "released");
    EXPECT_EQ(second.answer(), "OBJECT_NOT_EXIST");
    EXPECT_EQ(iterator->most, 1);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
