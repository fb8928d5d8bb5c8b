#pragma once
// Runs commands with a fake service and a fake researcher. The test decides their answers.

#include <algorithm>
#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Commands.h"
#include "qmdiscoctl/FailureOf.h"
#include "support/Lines.h"
#include "support/ListedDiscoveries.h"
#include "support/TemporaryDirectory.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

/// A discovery that a researcher reads back.
struct Discovered
{
    std::string in; ///< only a query for this subject finds it; empty: every query
    std::string subject;
    std::string authority;
    std::string document = "<DiscoveredItems></DiscoveredItems>";
    std::string problem = {}; ///< the reason that the researcher gives; empty: none

    void hand(const EachDiscovery& each) const
    {
        const Tlx::AutoDereference<Svc::Discovery> discovery(
            new QmTest::PlainDiscovery(new QmTest::MemoryData(document)));
        discovery->setSubject(new Svc::Subject(subject));
        if (!authority.empty())
            discovery->setAuthority(new Svc::Authority(authority, Svc::AT_EXTSRC));
        const Tlx::AutoDereference<QmTest::ListedDiscoveries> one(new QmTest::ListedDiscoveries);
        one->add(discovery);
        const Tlx::AutoDereference<Svc::AuthSubIterator> all(new Svc::AuthSubIterator(one.get()));
        const Tlx::AutoDereference<Svc::CollectionItemIterator> items(
            all->getNextCollectionItemIterator(nullptr));
        EXPECT_EQ(items->isParsed(), problem.empty());
        if (items->isParsed())
            return each(*items);
        each(*failing(*items));
    }

  private:
    /// The same items, with the test's reason for a failure.
    Tlx::AutoDereference<Svc::CollectionItemIterator>
    failing(Svc::CollectionItemIterator& items) const
    {
        auto list = std::make_unique<Svc::CollectionItemList>();
        while (Svc::CollectionItem* next = items.getNextCollectionItem())
            list->emplace_back(next);
        auto* const by = items.getAuthority();
        return Tlx::AutoDereference<Svc::CollectionItemIterator>(new Svc::CollectionItemIterator(
            by ? new Svc::Authority(*by) : nullptr, new Svc::Subject(*items.getSubject()),
            list.release(),
            Svc::ResearchFailure{Svc::ResearchProblem::NOT_PARSED, problem, subject, authority}));
    }
};

/// A document of one file system.
inline std::string fileSystem(const std::string& mount, const std::string& type,
                              const std::string& size)
{
    return "<DiscoveredItems><DISCOVERED Name=\"" + mount +
           "\"><ExplorerData Name=\"FileSystems\"><Device>/dev/x</Device><Type>" + type +
           "</Type><Options>rw</Options><Size>" + size +
           "</Size><Used>1024</Used><ReadOnly>0</ReadOnly></ExplorerData></DISCOVERED>"
           "</DiscoveredItems>";
}

/// The answers of the service, and the requests that it got.
struct Script
{
    Svc::DiscoveryStatus status = Svc::DS_SUCCESS;
    Svc::DiscoveryStatus closeStatus = Svc::DS_SUCCESS;
    std::vector<std::string> pages;
    int records = 0;
    bool putAnswer = true;
    bool boolean = true;
    int failAfter = -1;   ///< the number of calls before a COMM_FAILURE, -1 for no failure
    bool refuses = false; ///< each call with NO_PERMISSION
    int pingsUntilGone = 0;
    std::vector<Discovered> discovered;
    Result<> researchFails;

    QmTest::Lines calls;
    std::string stored;
    Remote::Discovery record;

    void call(const std::string& what)
    {
        calls.push_back(what);
        if (refuses)
            throw CORBA::NO_PERMISSION(0, CORBA::COMPLETED_NO);
        if (failAfter >= 0 && static_cast<int>(calls.size()) > failAfter)
            throw CORBA::COMM_FAILURE(0, CORBA::COMPLETED_MAYBE);
    }
};

/// An iterator whose pages a derived class makes.
template <class Page>
class FakePages : public Pages<Page>
{
  public:
    explicit FakePages(Script& script) : m_script(script) {}
    void setPageSize(CORBA::Long size) override
    {
        m_script.call("pageSize " + std::to_string(size));
    }
    std::unique_ptr<Page> next() override
    {
        m_script.call("page");
        auto page = std::make_unique<Page>();
        fill(*page);
        return page;
    }
    void release() override { m_script.call("release"); }

  protected:
    virtual void fill(Page& page) = 0;

    Script& m_script;
};

class FakeData : public FakePages<Remote::CollectionDataSeq>
{
  public:
    using FakePages::FakePages;

  private:
    void fill(Remote::CollectionDataSeq& page) override
    {
        if (m_next == m_script.pages.size())
            return;
        const std::string& text = m_script.pages[m_next++];
        page.length(static_cast<CORBA::ULong>(text.size()));
        std::copy(text.begin(), text.end(), page.get_buffer());
    }

    std::size_t m_next = 0;
};

class FakeRecords : public FakePages<Remote::DiscoverySeq>
{
  public:
    using FakePages::FakePages;

  private:
    void fill(Remote::DiscoverySeq& page) override
    {
        page.length(static_cast<CORBA::ULong>(m_sent ? 0 : m_script.records));
        m_sent = true;
        for (CORBA::ULong i = 0; i < page.length(); ++i) {
            page[i].subject = ("cl" + std::to_string(i)).c_str();
            page[i].authority = "srv\x1b";
            page[i].authType = Svc::AT_QMKCLIENT;
            page[i].sourceHost = "h";
            page[i].sourceServiceName = "s";
        }
    }

    bool m_sent = false;
};

class FakeWriter : public Writer
{
  public:
    explicit FakeWriter(Script& script) : m_script(script) {}
    bool put(const Remote::CollectionDataSeq& data) override
    {
        m_script.call("put " + std::to_string(data.length()));
        m_script.stored.append(reinterpret_cast<const char*>(data.get_buffer()), data.length());
        return m_script.putAnswer;
    }
    Svc::DiscoveryResult close() override
    {
        m_script.call("close");
        return {m_script.closeStatus, 0};
    }

  private:
    Script& m_script;
};

class FakeService : public Service
{
  public:
    explicit FakeService(Script& script) : m_script(script) {}
    std::unique_ptr<RecordPages> queryDiscoveries(Svc::DiscoveryQuery, Svc::AuthorityType type,
                                                  const std::string& authority,
                                                  const std::string& subject) override
    {
        m_script.call("query " + std::to_string(type) + " " + authority + " " + subject);
        return std::make_unique<FakeRecords>(m_script);
    }
    Svc::DiscoveryStatus getCollectionData(const Remote::Discovery& record,
                                           const std::string& filter,
                                           std::unique_ptr<DataPages>& pages) override
    {
        m_script.call("get " + std::string(record.subject) + " of " +
                      std::string(record.authority) + " [" + filter + "]");
        if (m_script.status == Svc::DS_SUCCESS)
            pages = std::make_unique<FakeData>(m_script);
        return m_script.status;
    }
    Svc::DiscoveryResult putCollection(const Remote::Discovery& record,
                                       std::unique_ptr<Writer>& writer) override
    {
        m_script.call("putCollection");
        m_script.record = record;
        if (m_script.status == Svc::DS_SUCCESS)
            writer = std::make_unique<FakeWriter>(m_script);
        return {m_script.status, 0};
    }
    bool terminate() override
    {
        m_script.call("terminate");
        return m_script.boolean;
    }
    void restartLocalPushTimer() override { m_script.call("local"); }
    bool restartAllPushTimers() override
    {
        m_script.call("all");
        return m_script.boolean;
    }
    void ping() override
    {
        if (m_script.pingsUntilGone-- <= 0)
            throw CORBA::TRANSIENT();
    }
    void setRequestLimit(std::chrono::seconds) override {}

  private:
    Script& m_script;
};

/// Keeps what a command prints.
class Kept : public Output
{
  public:
    Result<> write(std::string_view bytes) override
    {
        text.append(bytes);
        return {};
    }
    Result<> finish() override { return {}; }
    std::string text;
};

struct CommandsFixture : testing::Test
{
    CommandsFixture()
    {
        options.subject = "cl5";
        options.authority = "srv1";
        target.host = "backup1";
        target.endpoint = {"192.0.2.7", 14400};
    }

    /// NO_FAILURE when the command succeeds.
    Failure run(Command command)
    {
        options.command = command;
        Session session{
            .options = options,
            .target = target,
            .status = status,
            .localHost = "here",
            .connect = [this]() -> Result<std::unique_ptr<Service>> {
                if (!reachable)
                    return tl::unexpected(unreachable("backup1", target.endpoint, "no"));
                return std::make_unique<FakeService>(script);
            },
            .research = [this](auto query, const auto& subject, const auto& authority, auto* filter,
                               const auto& each) -> Result<> {
                std::ostringstream asked;
                asked << "research " << query << ' ' << subject << ' ' << authority;
                if (filter)
                    asked << ' ' << filter->queryString();
                script.calls.push_back(asked.str());
                for (const Discovered& discovered : script.discovered)
                    if (discovered.in == "" || discovered.in == subject)
                        discovered.hand(each);
                return script.researchFails;
            },
            .out = out,
            .now = [this] { return now; },
            .pause = [this](std::chrono::milliseconds time) { now += time; },
            .epochSeconds = [] { return 1000; },
            .isRunning = [](long) { return false; },
        };
        return failureOf(runCommand(session));
    }
    std::string file(const std::string& content)
    {
        QmTest::writeFile(directory.path("input"), content);
        return directory.path("input");
    }

    Script script;
    Options options;
    Target target;
    StatusDocument status;
    Kept out;
    bool reachable = true;
    std::chrono::steady_clock::time_point now{};
    QmTest::TemporaryDirectory directory;
};

} // namespace Veltrane::Quillmark::Qmdiscoctl
