// The ORB wrapper, on the loopback.

#include <tlx/Orb.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tlx/HostConfig.h>
#include <tlx/Resolver.h>
#include <tlx/Servant.h>
#include <tlx/StopNotice.h>

#include "support/Capture.h"
#include "support/PeerProcess.h"
#include "support/SilentPeer.h"

namespace Veltrane::Quillmark::Tlx {
namespace {

using namespace std::chrono_literals;
using QmTest::LogCapture;
using QmTest::SilentPeer;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

/// Looks the object up that the host advertises.
tl::expected<CORBA::Object_var, LookupFailure>
lookUp(Orb& orb, const char* host, std::chrono::milliseconds limit, const char* name = "Thing")
{
    return orb.lookupObject({.host = TlxHostname(host), .name = name, .limit = limit});
}

/// A servant with the operations that every object has.
class PlainServant : public virtual PortableServer::ServantBase
{
  public:
    explicit PlainServant(bool* destroyed = nullptr) : m_destroyed(destroyed) {}
    ~PlainServant() override
    {
        if (m_destroyed)
            *m_destroyed = true;
    }
    CORBA::Boolean _dispatch(omniCallHandle&) override { return false; }
    const char* _mostDerivedRepoId() override { return "IDL:omg.org/CORBA/Object:1.0"; }
    void* _ptrToInterface(const char*) override { return this; }

  private:
    bool* const m_destroyed;
};

/// Makes an object and advertises it as "Thing". The ORB keeps it.
void advertiseThing(Orb& orb)
{
    PortableServer::Servant_var<PlainServant> servant(new PlainServant);
    const CORBA::Object_var object = orb.activateServant(servant.in());
    orb.advertiseObject("Thing", object);
}

/// Answers one request on each connection with "the object is here", and closes the connection. To
/// a client, a service that restarts between two requests looks like this.
class ForgetfulPeer : public SilentPeer
{
  public:
    ForgetfulPeer() : m_thread([this] { serve(); }) {}
    ~ForgetfulPeer()
    {
        ::shutdown(socket(), SHUT_RDWR);
        m_thread.join();
    }
    int answers() const { return m_answers; }

  private:
    void serve()
    {
        for (;;) {
            const int fd = ::accept(socket(), nullptr, nullptr);
            if (fd < 0)
                return;
            answer(fd);
            ::close(fd);
        }
    }
    void answer(int fd)
    {
        char request[512];
        if (::recv(fd, request, 16, MSG_WAITALL) != 16)
            return;
        std::uint32_t left = 0;
        std::memcpy(&left, request + 8, sizeof left);
        left -= 4; // the request's id has been read
        ASSERT_LE(left, sizeof request - 16);
        if (::recv(fd, request + 16, left, MSG_WAITALL) != static_cast<ssize_t>(left))
            return;
        // Byte order as in the request, then: size, id, no exception, no contexts, false.
        char reply[25] = {'G', 'I', 'O', 'P', 1, 2, request[6], 1, 13};
        std::memcpy(reply + 12, request + 12, 4);
        ++m_answers; // before the answer, because the test reads the count after the answer
        EXPECT_EQ(::send(fd, reply, sizeof reply, MSG_NOSIGNAL),
                  static_cast<ssize_t>(sizeof reply));
    }

    std::atomic<int> m_answers{0};
    std::thread m_thread;
};

/// Does not accept a connection: its queue is full, so the system drops further requests.
class FullPeer : public SilentPeer
{
  public:
    FullPeer()
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port());
        for (int& each : m_waiting) {
            each = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            (void)::connect(each, reinterpret_cast<sockaddr*>(&address), sizeof address);
        }
    }
    ~FullPeer()
    {
        for (const int each : m_waiting)
            ::close(each);
    }

  private:
    std::array<int, 20> m_waiting{}; ///< more than fit into the queue
};

struct OrbTest : testing::Test
{
    OrbTest() { HostConfig::instance().readText("", "none"); }

    static void endpointOf(const std::string& host, const std::string& endpoint)
    {
        HostConfig::instance().readText("ENDPOINT." + host + " = " + endpoint + "\n", "qm.conf");
    }
};

TEST_F(OrbTest, TakesAFreePortAndReportsIt)
{
    const Orb orb(false, "127.0.0.1:0", "S", false);
    EXPECT_THAT(orb.getEndpoint(), StartsWith("127.0.0.1:"));
    EXPECT_NE(orb.getEndpoint(), "127.0.0.1:0");
    EXPECT_EQ(orb.getServiceName(), "S");
}

TEST_F(OrbTest, PublishesTheAddressThatTheConfigurationNames)
{
    HostConfig::instance().readText("PUBLISH_ADDRESS = 192.0.2.7\n", "qm.conf");
    const Orb orb(false, "127.0.0.1:0", "S", false);
    EXPECT_THAT(orb.getEndpoint(), StartsWith("192.0.2.7:"));
    EXPECT_NE(orb.getEndpoint(), "192.0.2.7:0");
}

TEST_F(OrbTest, AnIPv6AddressIsPublishedInBrackets)
{
    HostConfig::instance().readText("PUBLISH_ADDRESS = 2001:db8::7\n", "qm.conf");
    const Orb orb(false, "127.0.0.1:0", "S", false);
    EXPECT_THAT(orb.getEndpoint(), StartsWith("[2001:db8::7]:"));
}

TEST_F(OrbTest, ListensOnIPv6)
{
    Orb orb(false, "[::1]:0", "S", false);
    EXPECT_THAT(orb.getEndpoint(), StartsWith("[::1]:"));
    advertiseThing(orb);
    orb.serveRequests();
    endpointOf("here", orb.getEndpoint());
    const auto found = lookUp(orb, "here", 5s);
    EXPECT_TRUE(found);
}

TEST_F(OrbTest, NeverPublishesTheAnyAddress)
{
    const Orb orb(false, "0.0.0.0:0", "S", false);
    EXPECT_FALSE(orb.getEndpoint().empty());
    EXPECT_THAT(orb.getEndpoint(), testing::Not(StartsWith("0.0.0.0")));
    EXPECT_THAT(orb.getEndpoint(), testing::Not(StartsWith(":")));
}

TEST_F(OrbTest, ReportsWhyAPortCannotBeUsed)
{
    const SilentPeer other;
    const std::string endpoint = "127.0.0.1:" + std::to_string(other.port());
    try {
        const Orb orb(false, endpoint, "S", false);
        FAIL() << "a port in use was taken";
    } catch (const OrbError& e) {
        EXPECT_EQ(std::string(e.what()),
                  "cannot listen on " + endpoint + ": Address already in use");
    }
}

TEST_F(OrbTest, AWrongEndpointIsReportedWithTheExpectedForm)
{
    try {
        const Orb orb(false, "nonsense", "S", false);
        FAIL() << "nonsense was taken";
    } catch (const OrbError& e) {
        EXPECT_EQ(std::string(e.what()), "cannot listen on \"nonsense\": expected ADDRESS:PORT");
    }
}

TEST_F(OrbTest, ComesUpAgainAfterAFailureAndAfterItsEnd)
{
    const SilentPeer other;
    EXPECT_THROW(Orb(false, "127.0.0.1:" + std::to_string(other.port()), "S", false), OrbError);
    {
        const Orb orb(false, "127.0.0.1:0", "S", false);
        EXPECT_THAT(orb.getEndpoint(), StartsWith("127.0.0.1:"));
    }
    const Orb again(false, "127.0.0.1:0", "S", false);
    EXPECT_THAT(again.getEndpoint(), StartsWith("127.0.0.1:"));
}

TEST_F(OrbTest, AClientOpensNoPortAndServesNothing)
{
    Orb orb(true, "", "S", false);
    EXPECT_EQ(orb.getEndpoint(), "");
    EXPECT_FALSE(orb.isEvictorEnabled());
    EXPECT_THROW(orb.getEvictor(), CORBA::BAD_INV_ORDER);
    PortableServer::Servant_var<PlainServant> servant(new PlainServant);
    EXPECT_THROW((void)orb.activateServant(servant.in()), CORBA::OBJ_ADAPTER);
    orb.serveRequests();
    orb.holdRequests();
}

TEST_F(OrbTest, WrappersShareOneOrb)
{
    const Orb first(false, "127.0.0.1:0", "S", false);
    const Orb second(true, "", "T", true);
    EXPECT_EQ(first.getOrb(), second.getOrb());
    EXPECT_NE(first.getReactor(), second.getReactor());
    EXPECT_TRUE(second.isEvictorEnabled());
}

TEST_F(OrbTest, AnAdvertisedObjectIsFoundUnderItsName)
{
    Orb orb(false, "127.0.0.1:0", "S", false);
    advertiseThing(orb);
    orb.serveRequests();
    endpointOf("here", orb.getEndpoint());
    const auto found = lookUp(orb, "here", 5s);
    ASSERT_TRUE(found) << found.error().cause;
    EXPECT_FALSE((*found)->_non_existent());
    const auto none = lookUp(orb, "here", 5s, "Other");
    EXPECT_FALSE(none);
}

TEST_F(OrbTest, AThreadThatTheOrbHasNeverSeenMayLookUp)
{
    Orb orb(false, "127.0.0.1:0", "S", false);
    advertiseThing(orb);
    orb.serveRequests();
    endpointOf("here", orb.getEndpoint());
    std::thread([&orb] {
        for (int i = 0; i < 2; ++i) {
            const auto found = lookUp(orb, "here", 5s);
            EXPECT_TRUE(found);
        }
    }).join();
}

/// Another process, because an ORB that calls itself behaves differently. It looks up "Thing" at
/// the endpoint in the command: first with a short limit, then with a long one. It answers "waited"
/// if only the second lookup found the object.
class OtherProcess : public QmTest::PeerProcess
{
  public:
    OtherProcess() : PeerProcess(find) {}

  private:
    static std::string find(const std::string& endpoint)
    {
        OrbTest::endpointOf("there", endpoint);
        Orb orb(true, "", "S", false);
        const auto held = lookUp(orb, "there", 300ms);
        if (held)
            return "found too early";
        const auto found = lookUp(orb, "there", 20s);
        return found ? "waited" : found.error().cause;
    }
};

TEST_F(OrbTest, RequestsWaitUntilTheyAreServed)
{
    OtherProcess client; // forks, so it comes before any thread
    Orb orb(false, "127.0.0.1:0", "S", false);
    advertiseThing(orb);
    client.tell(orb.getEndpoint());
    // The client's first request runs into its limit. Its second one waits until the service
    // serves.
    std::thread later([&] {
        std::this_thread::sleep_for(1s);
        orb.serveRequests();
    });
    EXPECT_EQ(client.answer(), "waited");
    later.join();
}

TEST_F(OrbTest, ASilentPeerCostsNoMoreThanTheLimit)
{
    const SilentPeer peer;
    Orb orb(true, "", "S", false);
    endpointOf("silent", "127.0.0.1:" + std::to_string(peer.port()));
    const auto start = std::chrono::steady_clock::now();
    const auto found = lookUp(orb, "silent", 500ms);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_FALSE(found);
    EXPECT_GE(took, 400ms);
    EXPECT_LT(took, 5s); // slack for a busy machine
}

TEST_F(OrbTest, AServiceThatWasRestartedIsFoundByTheFirstQuestion)
{
    const ForgetfulPeer peer;
    Orb orb(true, "", "S", false);
    endpointOf("restarted", "127.0.0.1:" + std::to_string(peer.port()));
    for (int times = 1; times <= 3; ++times) {
        const auto found = lookUp(orb, "restarted", 20s);
        EXPECT_TRUE(found);
        EXPECT_EQ(peer.answers(), times);
    }
}

TEST_F(OrbTest, NobodyListeningIsNil)
{
    std::uint16_t port = 0;
    {
        const SilentPeer peer;
        port = peer.port();
    }
    LogCapture log;
    Orb orb(true, "", "S", false);
    endpointOf("gone", "127.0.0.1:" + std::to_string(port));
    const auto found = lookUp(orb, "gone", 5s);
    EXPECT_FALSE(found);
    ASSERT_EQ(log.texts(4).size(), 1u);
    EXPECT_THAT(log.texts(4)[0], StartsWith("No answer from corbaloc:iiop:1.2@127.0.0.1:" +
                                            std::to_string(port) + "/Thing: TRANSIENT"));
}

TEST_F(OrbTest, AnAddressThatIsSilentLeavesTheOthersTheirShare)
{
    Orb orb(false, "127.0.0.1:0", "S", false);
    advertiseThing(orb);
    orb.serveRequests();
    const auto own = parseEndpoint(orb.getEndpoint());
    ASSERT_TRUE(own);
    const SilentPeer silent(INADDR_LOOPBACK + 1, own->port);
    setResolver([](const std::string&) {
        return std::vector<std::string>{"127.0.0.2", "127.0.0.1"};
    });
    endpointOf("two", "two.example:" + std::to_string(own->port));
    const auto start = std::chrono::steady_clock::now();
    const auto found = lookUp(orb, "two", 1s);
    setResolver({});
    EXPECT_TRUE(found);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 400ms) << "the silent one was tried";
}

/// What a call to a peer ends with when the process stops meanwhile.
std::string callDuringStop(Orb& orb, const SilentPeer& peer)
{
    orb.setOrbRequestTimeout(300);
    const std::string url = "corbaloc:iiop:1.2@" + peer.endpoint() + "/Thing";
    const CORBA::Object_var object = orb.getOrb()->string_to_object(url.c_str());
    std::atomic<bool> begun{false};
    auto call = std::async(std::launch::async, [&]() -> std::string {
        begun = true;
        try {
            return object->_non_existent() ? "not there" : "there";
        } catch (const CORBA::SystemException& e) {
            return e._name();
        }
    });
    while (!begun)
        std::this_thread::yield();
    // The call may not wait yet. Then it ends in the same way.
    while (call.wait_for(50ms) != std::future_status::ready)
        orb.breakOffWaits();
    return call.get();
}

TEST_F(OrbTest, AStopEndsACallThatWaitsForItsReply)
{
    Orb orb(true, "", "S", false);
    const SilentPeer peer;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THAT(callDuringStop(orb, peer), AnyOf("COMM_FAILURE", "TRANSIENT"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 30s); // slack for a busy machine
}

TEST_F(OrbTest, AStopEndsACallThatWaitsForItsConnection)
{
    Orb orb(true, "", "S", false);
    const FullPeer peer;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THAT(callDuringStop(orb, peer), AnyOf("COMM_FAILURE", "TRANSIENT"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 30s); // slack for a busy machine
}

TEST_F(OrbTest, AfterTheStopNoCallBeginsUntilTheNextStart)
{
    const SilentPeer peer;
    {
        Orb orb(true, "", "S", false);
        orb.breakOffWaits();
        EXPECT_TRUE(isStopAnnounced());
        endpointOf("silent", peer.endpoint());
        const auto found = lookUp(orb, "silent", 60s);
        ASSERT_FALSE(found);
        EXPECT_EQ(found.error().exception, "TRANSIENT");
    }
    const Orb next(true, "", "S", false);
    EXPECT_FALSE(isStopAnnounced());
}

TEST_F(OrbTest, ThePublishedAddressLeadsBackHere)
{
    const std::string config = "PUBLISH_ADDRESS = 127.0.0.9\n";
    HostConfig::instance().readText(config, "qm.conf");
    Orb orb(false, "127.0.0.1:0", "S", false);
    HostConfig::instance().readText(config + "ENDPOINT.other = " + orb.getEndpoint() + "\n",
                                    "qm.conf");
    const LogCapture log;
    const auto found = orb.lookupObject(
        {.host = TlxHostname("other"), .name = "Thing", .limit = 5s, .elsewhere = true});
    ASSERT_FALSE(found);
    EXPECT_EQ(found.error().cause, "it leads back to this service");
    EXPECT_THAT(log.texts(1),
                ElementsAre("other leads back to this service: " + orb.getEndpoint()));
}

TEST_F(OrbTest, DestroyingAReferenceDeactivatesItsObject)
{
    Orb orb(false, "127.0.0.1:0", "S", false);
    orb.serveRequests();
    bool destroyed = false;
    PortableServer::Servant_var<PlainServant> servant(new PlainServant(&destroyed));
    const CORBA::Object_var object = orb.activateServant(servant.in());
    servant = nullptr;
    EXPECT_FALSE(object->_non_existent());
    EXPECT_FALSE(destroyed);
    orb.destroyObjectRef(object, PortableServer::POA::_nil());
    EXPECT_TRUE(destroyed);
    EXPECT_TRUE(object->_non_existent());
    orb.destroyObjectRef(object, PortableServer::POA::_nil());
    orb.destroyObjectRef(CORBA::Object::_nil(), PortableServer::POA::_nil());
}

TEST_F(OrbTest, CopesWithARootPoaThatItsServiceDestroyed)
{
    Orb orb(false, "127.0.0.1:0", "S", true);
    orb.serveRequests();
    PortableServer::Servant_var<PlainServant> servant(new PlainServant);
    const CORBA::Object_var object = orb.activateServant(servant.in());
    const CORBA::Object_var root = orb.getOrb()->resolve_initial_references("RootPOA");
    const PortableServer::POA_var poa = PortableServer::POA::_narrow(root);
    poa->destroy(false, true);
    orb.destroyObjectRef(object, PortableServer::POA::_nil());
    EXPECT_THROW((void)orb.activateServant(servant.in()), CORBA::SystemException);
    orb.holdRequests();
    orb.serveRequests();
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
