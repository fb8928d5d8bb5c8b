// The rules of who may do what, as the ORB and the servants ask for them.

#include "AccessRules.h"

#include <atomic>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <regex>
#include <thread>

#include <gtest/gtest.h>

#include <tlx/Corba.h>
#include <tlx/HostConfig.h>
#include <tlx/Resolver.h>
#include <tlx/StopNotice.h>

#include "ServiceCounters.h"
#include "ServiceKeys.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::Lines;
using QmTest::LogCapture;

const std::vector<std::string> READING{"queryDiscoveries", "getCollectionData", "getNextPage",
                                       "_get_pageSize",    "_set_pageSize",     "release"};
const std::vector<std::string> WRITING{"putCollection", "put", "close"};
const std::vector<std::string> REGISTERING{"registerExplorer"};
const std::vector<std::string> CONTROLLING{"terminate", "restartLocalPushTimer",
                                           "restartAllPushTimers"};
const std::vector<std::string> FREE{"_is_a",           "_non_existent",  "_interface",
                                    "_get_interface",  "_repository_id", "_component",
                                    "_domain_managers"};

struct AccessRulesTest : testing::Test
{
    AccessRulesTest()
    {
        HostConfig::instance().declare(SERVICE_KEYS);
        setResolver([this](const std::string& host) -> std::vector<std::string> {
            ++asked;
            if (isResolverDown)
                return {};
            if (host == "backup1")
                return {"192.0.2.1"};
            return host == "web1" ? std::vector<std::string>{"192.0.2.7"}
                                  : std::vector<std::string>{};
        });
    }
    ~AccessRulesTest() override
    {
        rules.stop();
        setRequestCheck(nullptr);
        setResolver({});
    }

    static void configure(const std::string& lists)
    {
        HostConfig::instance().readText("SERVER = backup1\nCLIENT_NAME = here\n" + lists,
                                        "qm.conf");
    }
    /// Takes the lists, and resolves their names.
    void take(const std::string& lists)
    {
        configure(lists);
        rules.refresh(std::chrono::seconds(10));
    }
    bool admits(const std::string& operation, const std::string& address,
                const std::string& certificate = "")
    {
        const RequestPeer peer{address, certificate};
        return rules.admits({peer, operation.c_str()});
    }
    bool admitsAll(const std::vector<std::string>& operations, const std::string& address)
    {
        for (const std::string& operation : operations)
            if (!admits(operation, address))
                return false;
        return true;
    }
    bool admitsAny(const std::vector<std::string>& operations, const std::string& address)
    {
        for (const std::string& operation : operations)
            if (admits(operation, address))
                return true;
        return false;
    }
    static unsigned long long refused()
    {
        for (const CounterValue& counter : serviceCounters())
            if (std::string(counter.name) == "requestsRefused")
                return counter.value;
        return 0;
    }

    AccessRules& rules = AccessRules::instance();
    std::atomic<int> asked{0};
    std::atomic<bool> isResolverDown{false};
};

TEST_F(AccessRulesTest, BeforeTheStartEverybodyMayDoEverything)
{
    configure("ALLOW.control =\n");
    EXPECT_TRUE(admits("terminate", "198.51.100.1"));
    const RequestPeerMark mark({"198.51.100.1", ""});
    rules.requireOwner(AccessRole::WRITE, "putCollection", {"web1"});
    rules.requireRole(AccessRole::REGISTER, "registerExplorer");
    rules.requirePriority("putCollection", 0xffffffff);
    EXPECT_EQ(refused(), 0u);
}

TEST_F(AccessRulesTest, ByDefaultOnlyControlIsForThisHostAndTheMaster)
{
    take("");
    for (const char* anybody : {"198.51.100.1", "2001:db8::9", "127.0.0.1", "192.0.2.1"}) {
        EXPECT_TRUE(admitsAll(READING, anybody)) << anybody;
        EXPECT_TRUE(admitsAll(WRITING, anybody)) << anybody;
        EXPECT_TRUE(admitsAll(REGISTERING, anybody)) << anybody;
    }
    EXPECT_TRUE(admitsAll(CONTROLLING, "127.0.0.1"));
    EXPECT_TRUE(admitsAll(CONTROLLING, "192.0.2.1")) << "the master";
    EXPECT_FALSE(admitsAny(CONTROLLING, "198.51.100.1"));
    EXPECT_FALSE(admitsAny(CONTROLLING, "192.0.2.7"));
}

TEST_F(AccessRulesTest, EachOperationHasItsRole)
{
    LogCapture log;
    const struct
    {
        const char* key;
        const std::vector<std::string>& operations;
    } roles[] = {{"ALLOW.read", READING},
                 {"ALLOW.write", WRITING},
                 {"ALLOW.register", REGISTERING},
                 {"ALLOW.control", CONTROLLING}};
    for (const auto& open : roles) {
        std::string lists;
        for (const auto& each : roles)
            lists += std::string(each.key) +
                     (&each == &open ? " = 198.51.100.1\n" : " = 198.51.100.2\n");
        take(lists);
        for (const auto& each : roles) {
            if (&each == &open)
                EXPECT_TRUE(admitsAll(each.operations, "198.51.100.1")) << open.key;
            else
                EXPECT_FALSE(admitsAny(each.operations, "198.51.100.1")) << open.key;
        }
    }
}

/// An operation without a role would be free for everybody.
TEST_F(AccessRulesTest, EveryOperationOfTheInterfacesHasARole)
{
    std::ifstream file(QM_DOCS "/../libdiscsrv/idl/DiscoverySvc.idl");
    std::string text;
    for (std::string line; std::getline(file, line);)
        text += line.substr(0, line.find("//")) + "\n";
    std::vector<std::string> wire;
    const std::regex interface("interface (\\w+) \\{([^}]*)\\}");
    for (std::sregex_iterator each(text.begin(), text.end(), interface), end; each != end; ++each) {
        const std::string body = (*each)[2];
        const std::regex member("(attribute\\s+)?[\\w:]+\\s+(\\w+)\\s*(\\([^)]*\\))?;");
        for (std::sregex_iterator found(body.begin(), body.end(), member); found != end; ++found) {
            const std::string name = (*found)[2];
            if ((*found)[1].matched) {
                wire.push_back("_get_" + name);
                wire.push_back("_set_" + name);
            } else {
                wire.push_back(name);
            }
        }
    }
    EXPECT_EQ(wire.size(), 17u) << "4 of each iterator, 2 of the writer, 7 of the service";
    for (const std::string& operation : wire)
        EXPECT_TRUE(roleOf(operation)) << operation;
}

TEST_F(AccessRulesTest, WhatEveryObjectHasIsFreeAndUnknownNamesAreTheOrbs)
{
    take("ALLOW.read =\nALLOW.write =\nALLOW.register =\nALLOW.control =\n");
    EXPECT_TRUE(admitsAll(FREE, "198.51.100.1"));
    EXPECT_TRUE(admitsAll({"", "Terminate", "terminate2", "pageSize", "_get_pageSize2", "shutdown",
                           std::string(100000, 'x')},
                          "198.51.100.1"));
    EXPECT_FALSE(admits("terminate", "127.0.0.1"));
    EXPECT_EQ(refused(), 1u);
}

TEST_F(AccessRulesTest, ARefusalIsOneLineAndOneCount)
{
    take("ALLOW.read = web1\n");
    LogCapture log;
    EXPECT_FALSE(admits("terminate", "198.51.100.1"));
    EXPECT_FALSE(admits("_set_pageSize", "2001:db8::9", "web2"));
    EXPECT_EQ(log.texts(1),
              (Lines{"Refused: 198.51.100.1 may not terminate (ALLOW.control = local, master)",
                     "Refused: web2 (2001:db8::9) may not _set_pageSize (ALLOW.read = web1)"}));
    EXPECT_EQ(log.severities(log.texts(1)[0]), std::vector{LogSeverity::Warning});
    EXPECT_EQ(log.lines()[0].operation, "AccessRules::check");
    EXPECT_EQ(log.lines()[0].source, "AccessRules");
    EXPECT_EQ(log.lines()[0].originator, 400u);
    EXPECT_EQ(log.lines()[0].sourceLine, log.lines()[1].sourceLine)
        << "one place, so that the log sums up a flood";
    EXPECT_EQ(refused(), 2u);
}

TEST_F(AccessRulesTest, AReloadTakesTheNewListsAtOnce)
{
    take("ALLOW.read = 198.51.100.1\n");
    EXPECT_TRUE(admits("getNextPage", "198.51.100.1"));
    configure("ALLOW.read = 198.51.100.2\nMAX_REMOTE_PRIORITY = 3\n");
    EXPECT_TRUE(admits("getNextPage", "198.51.100.1")) << "nothing changes before the reload";
    rules.reload();
    EXPECT_FALSE(admits("getNextPage", "198.51.100.1"));
    EXPECT_TRUE(admits("getNextPage", "198.51.100.2"));
    const RequestPeerMark mark({"198.51.100.2", ""});
    EXPECT_THROW(rules.requirePriority("putCollection", 4), CORBA::NO_PERMISSION);
}

TEST_F(AccessRulesTest, AWrongEntryIsLeftOutAndMakesTheListNoMoreOpen)
{
    take("ALLOW.read = 198.51.100.1 192.0.2.7/24 own\nALLOW.write = 10.1\n");
    EXPECT_EQ(HostConfig::instance().problems().size(), 2u);
    EXPECT_TRUE(admits("getNextPage", "198.51.100.1"));
    EXPECT_FALSE(admits("getNextPage", "192.0.2.7"));
    EXPECT_FALSE(admits("putCollection", "10.0.0.1"));
    EXPECT_FALSE(admits("putCollection", "127.0.0.1"));
}

TEST_F(AccessRulesTest, NamesAreResolvedAheadAndNeverForARequest)
{
    take("ALLOW.read = web1, web2\nALLOW.write = web1\n");
    EXPECT_EQ(asked, 3) << "each name once: two hosts and the master";
    EXPECT_TRUE(admits("getNextPage", "192.0.2.7"));
    EXPECT_TRUE(admits("put", "192.0.2.7"));
    EXPECT_FALSE(admits("getNextPage", "192.0.2.8"));
    EXPECT_EQ(asked, 3);
}

TEST_F(AccessRulesTest, TheLastGoodAddressesHoldWhileTheResolverIsDown)
{
    take("ALLOW.read = web1, web2\n");
    isResolverDown = true;
    LogCapture log;
    EXPECT_FALSE(rules.refresh(std::chrono::seconds(10)));
    EXPECT_TRUE(admits("getNextPage", "192.0.2.7"));
    EXPECT_EQ(log.texts(1),
              (Lines{"Cannot resolve \"backup1\" of the lists ALLOW.*, its last addresses hold for "
                     "a day",
                     "Cannot resolve \"web1\" of the lists ALLOW.*, its last addresses hold for a "
                     "day"}))
        << "web2 was missing before";
    log.clear();
    EXPECT_FALSE(rules.refresh(std::chrono::seconds(10)));
    EXPECT_EQ(log.texts(1), Lines{}) << "only the change is news";
    rules.reload();
    EXPECT_TRUE(admits("getNextPage", "192.0.2.7")) << "a reload forgets no address";
}

TEST_F(AccessRulesTest, AHostThatNeverResolvedAdmitsNobodyWithoutACertificate)
{
    LogCapture log;
    take("ALLOW.read = web2\n");
    EXPECT_EQ(log.texts(1), Lines{"Cannot resolve \"web2\" of the lists ALLOW.*, without a "
                                  "certificate it admits nobody"});
    EXPECT_FALSE(admits("getNextPage", "192.0.2.8"));
    EXPECT_TRUE(admits("getNextPage", "192.0.2.8", "web2"));
}

TEST_F(AccessRulesTest, ARoundThatEndsEarlyGoesOnWhereItStopped)
{
    configure("ALLOW.read = web1, web2, web3\n");
    EXPECT_FALSE(rules.refresh(std::chrono::seconds(0)));
    EXPECT_EQ(asked, 0);
    EXPECT_FALSE(admits("getNextPage", "192.0.2.7")) << "the lists hold all the same";
    rules.refresh(std::chrono::seconds(10));
    EXPECT_EQ(asked, 4);
    EXPECT_TRUE(admits("getNextPage", "192.0.2.7"));
}

TEST_F(AccessRulesTest, TheConfiguredEndpointOfAHostIsItsAddress)
{
    take("ENDPOINT.backup1 = 192.0.2.99:14401\nENDPOINT.web2 = 192.0.2.98:14401\n"
         "ALLOW.read = web2\n");
    EXPECT_TRUE(admits("terminate", "192.0.2.99"));
    EXPECT_FALSE(admits("terminate", "192.0.2.1"));
    EXPECT_TRUE(admits("release", "192.0.2.98"));
}

TEST_F(AccessRulesTest, OwnMeansTheNamesThatArePeersOwn)
{
    take("ALLOW.write = own\nALLOW.register = own, 198.51.100.0/24\n");
    EXPECT_TRUE(admits("putCollection", "192.0.2.7")) << "the servant decides";
    const RequestPeerMark mark({"192.0.2.7", ""});
    rules.requireOwner(AccessRole::WRITE, "putCollection", {"web1"});
    rules.requireOwner(AccessRole::REGISTER, "registerExplorer", {"web1", "WEB1"});
    LogCapture log;
    EXPECT_THROW(rules.requireOwner(AccessRole::WRITE, "putCollection", {"web2"}),
                 CORBA::NO_PERMISSION);
    EXPECT_THROW(rules.requireOwner(AccessRole::REGISTER, "registerExplorer", {"web1", "web2"}),
                 CORBA::NO_PERMISSION);
    EXPECT_THROW(rules.requireOwner(AccessRole::REGISTER, "registerExplorer", {"web2", "web1"}),
                 CORBA::NO_PERMISSION);
    EXPECT_THROW(rules.requireRole(AccessRole::REGISTER, "putCollection of a registration"),
                 CORBA::NO_PERMISSION);
    EXPECT_EQ(log.texts(1)[0],
              "Refused: 192.0.2.7 may not putCollection as \"web2\" (ALLOW.write = own)");
    EXPECT_EQ(log.texts(1)[3], "Refused: 192.0.2.7 may not putCollection of a registration "
                               "(ALLOW.register = own, 198.51.100.0/24)");
    EXPECT_EQ(refused(), 4u);
    const RequestPeerMark other({"198.51.100.9", ""});
    rules.requireOwner(AccessRole::REGISTER, "registerExplorer", {"web1", "anything"});
    rules.requireRole(AccessRole::REGISTER, "putCollection of a registration");
}

TEST_F(AccessRulesTest, WithACertificateOwnMeansItsName)
{
    take("ALLOW.write = own\nALLOW.register = own\n");
    {
        const RequestPeerMark web1({"198.51.100.9", "web1"});
        rules.requireOwner(AccessRole::WRITE, "putCollection", {"web1"});
        rules.requireOwner(AccessRole::REGISTER, "registerExplorer", {"WEB1", "web1."});
        EXPECT_THROW(rules.requireOwner(AccessRole::WRITE, "putCollection", {"web2"}),
                     CORBA::NO_PERMISSION);
    }
    LogCapture log;
    const RequestPeerMark web2({"192.0.2.7", "web2"}); // the address of web1
    EXPECT_THROW(rules.requireOwner(AccessRole::WRITE, "putCollection", {"web1"}),
                 CORBA::NO_PERMISSION);
    EXPECT_EQ(log.texts(1), Lines{"Refused: web2 (192.0.2.7) may not putCollection as \"web1\" "
                                  "(ALLOW.write = own)"});
}

TEST_F(AccessRulesTest, WithoutOwnAForeignPeerIsRefusedTwice)
{
    take("ALLOW.write = local\n");
    EXPECT_FALSE(admits("putCollection", "192.0.2.7"));
    const RequestPeerMark mark({"192.0.2.7", ""});
    EXPECT_THROW(rules.requireOwner(AccessRole::WRITE, "putCollection", {"web1"}),
                 CORBA::NO_PERMISSION);
}

TEST_F(AccessRulesTest, APriorityAtTheBoundAndOneAbove)
{
    take("MAX_REMOTE_PRIORITY = 10\n");
    {
        const RequestPeerMark mark({"198.51.100.1", ""});
        rules.requirePriority("putCollection", 0);
        rules.requirePriority("putCollection", 10);
        LogCapture log;
        EXPECT_THROW(rules.requirePriority("putCollection", 11), CORBA::NO_PERMISSION);
        EXPECT_THROW(rules.requirePriority("registerExplorer", 0xffffffff), CORBA::NO_PERMISSION);
        EXPECT_EQ(log.texts(1), (Lines{"Refused: 198.51.100.1 may not putCollection with priority "
                                       "11 (MAX_REMOTE_PRIORITY = 10)",
                                       "Refused: 198.51.100.1 may not registerExplorer with "
                                       "priority 4294967295 (MAX_REMOTE_PRIORITY = 10)"}));
    }
    const RequestPeerMark local({"127.0.0.1", ""});
    rules.requirePriority("putCollection", 0xffffffff);
    take("");
    const RequestPeerMark anybody({"198.51.100.1", ""});
    rules.requirePriority("putCollection", 0xffffffff);
}

TEST_F(AccessRulesTest, WhatComesFromNoPeerIsNotAsked)
{
    take("ALLOW.write =\nALLOW.register =\nMAX_REMOTE_PRIORITY = 0\n");
    ASSERT_EQ(requestPeer(), nullptr);
    rules.requireOwner(AccessRole::WRITE, "putCollection", {"web1"});
    rules.requireRole(AccessRole::REGISTER, "x");
    rules.requirePriority("putCollection", 1);
    EXPECT_EQ(refused(), 0u);
}

TEST_F(AccessRulesTest, RequestsGoOnWhileTheListsAreReadAgain)
{
    // Both lists admit the one address, and no list ever admits the other.
    const std::string lists[] = {"ALLOW.control = 198.51.100.1, web1\n",
                                 "ALLOW.control = local, 198.51.100.0/31\n"};
    take(lists[0]);
    LogCapture log;
    std::atomic<bool> isOver{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> peers;
    for (int i = 0; i < 8; ++i)
        peers.emplace_back([&] {
            while (!isOver)
                if (!admits("terminate", "198.51.100.1") || admits("terminate", "198.51.100.2"))
                    ++wrong;
        });
    rules.start();
    for (int i = 0; i < 200; ++i) {
        configure(lists[i % 2]);
        rules.reload();
    }
    rules.stop();
    isOver = true;
    for (std::thread& peer : peers)
        peer.join();
    EXPECT_EQ(wrong, 0);
}

TEST_F(AccessRulesTest, AStopDoesNotWaitForAResolverThatHangs)
{
    configure("");
    rules.start();
    std::mutex mutex;
    std::condition_variable changed;
    bool isInside = false;
    bool open = false;
    bool hasLeft = false;
    setResolver([&](const std::string&) -> std::vector<std::string> {
        std::unique_lock lock(mutex);
        isInside = true;
        changed.notify_all();
        changed.wait(lock, [&] { return open; });
        hasLeft = true;
        changed.notify_all();
        return {"192.0.2.2"};
    });
    rules.reload();
    std::unique_lock lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(20), [&] { return isInside; }));
    lock.unlock();
    const LogCapture log;
    const auto began = std::chrono::steady_clock::now();
    announceStop();
    rules.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(4));
    withdrawStop();
    EXPECT_TRUE(admits("terminate", "192.0.2.1")) << "the last good address of the master";
    EXPECT_EQ(log.texts(1), Lines{}) << "nobody asks for the name any more";
    lock.lock();
    open = true;
    changed.notify_all();
    changed.wait(lock, [&] { return hasLeft; });
}

TEST_F(AccessRulesTest, StartAsksTheResolverAndInstallsTheCheck)
{
    configure("");
    rules.start();
    EXPECT_EQ(asked, 1);
    EXPECT_TRUE(admits("terminate", "192.0.2.1"));
    EXPECT_FALSE(admits("terminate", "192.0.2.7"));
    rules.stop();
    EXPECT_FALSE(admits("terminate", "192.0.2.7")) << "the rules stay in force";
    rules.stop();
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
