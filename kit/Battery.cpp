#include "Battery.h"

#include <cstdio>
#include <cstring>
#include <thread>

#include <ExplorerLoader.h>

namespace Veltrane::Quillmark::Kit {

using namespace Tlx::DiscoverySvc;
using Tlx::AutoDereference;

namespace {

constexpr unsigned AT_ONCE = 8;
constexpr unsigned PUSH_SECONDS = 14400;

/// The collection data that a pull explorer writes. It can refuse to open and to write.
class Sink : public CollectionData
{
  public:
    bool open(OpenMode mode, const char*) override
    {
        opened = mode == OM_UPDATE && !refusesOpen;
        return opened;
    }
    std::size_t readCollection(std::size_t, void*) const override { return 0; }
    bool writeCollection(std::size_t length, const void* buffer) const override
    {
        writtenUnopened = writtenUnopened || !opened;
        if (refusesWrites)
            return false;
        content.append(static_cast<const char*>(buffer), length);
        return true;
    }
    bool refusesOpen = false;
    bool refusesWrites = false;
    bool opened = false;
    mutable bool writtenUnopened = false;
    mutable std::string content;
};

/// A document with any content. It only needs to be well-formed.
class AnyDocument : public Tlx::XmlDocumentInterface
{
  public:
    AnyDocument() : XmlDocumentInterface(nullptr, "") {}
};

bool isWellFormed(const std::string& text)
{
    return AnyDocument().parseBuffer(text);
}

/// Runs all checks on one explorer.
class Examination
{
  public:
    Examination(const ExplorerWrapper& wrapper, CheckedRepository& repository, Report& report)
        : m_wrapper(wrapper), m_explorer(*wrapper.getExplorer()), m_repository(repository),
          m_report(report)
    {
    }

    void run()
    {
        std::printf("%s for %s of %s\n", m_wrapper.describe().c_str(),
                    m_wrapper.getSubject()->getSubject().c_str(),
                    m_wrapper.getAuthority()->getName().c_str());
        checkName();
        checkStartAndStop();
        if (auto* push = dynamic_cast<ExplorerPush*>(&m_explorer))
            checkPush(*push);
        if (auto* pull = dynamic_cast<ExplorerPull*>(&m_explorer))
            checkPull(*pull);
    }

  private:
    void checkName()
    {
        m_report.doesNotThrow("getExplorerName", [this] {
            const char* const name = m_explorer.getExplorerName();
            if (!m_report.check(name && *name, "it has a name"))
                return;
            const std::string first = name;
            m_report.check(first == m_explorer.getExplorerName(), "its name stays the same");
            std::size_t at = 0;
            std::size_t length = 0;
            while ((length = Tlx::utf8Character(std::string_view(first).substr(at))) > 0)
                at += length;
            m_report.check(at == first.size(), "its name is UTF-8");
        });
    }

    void checkStartAndStop()
    {
        const Tlx::EngineContext context(true);
        for (int i = 0; i < 2; ++i) {
            m_report.doesNotThrow("startExploration", [&] {
                m_explorer.startExploration(context, *m_wrapper.getAuthority(),
                                            *m_wrapper.getSubject(), m_state, &m_repository);
            });
            if (i == 0)
                m_report.doesNotThrow("stopExploration", [&] { stop(); });
        }
    }
    void stop()
    {
        m_explorer.stopExploration(*m_wrapper.getAuthority(), *m_wrapper.getSubject(), m_state);
    }

    DiscoveryResult push(ExplorerPush& explorer, const char* what)
    {
        const CollectionAttributes attributes(
            CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, Tlx::TlxObjTime::now(),
            Tlx::TlxObjTime(PUSH_SECONDS, 0), m_wrapper.getPriority());
        DiscoveryResult result{DS_SUCCESS, 0};
        m_report.doesNotThrow(what, [&] {
            explorer.pushCollection(*m_wrapper.getAuthority(), *m_wrapper.getSubject(), attributes,
                                    m_state, &m_repository, result);
        });
        return result;
    }
    Stored stored() const { return findStored(*m_wrapper.getAuthority(), *m_wrapper.getSubject()); }

    void checkPush(ExplorerPush& explorer)
    {
        m_report.check(isSuccess(push(explorer, "pushCollection")), "a push succeeds");
        const Stored first = stored();
        m_report.check(first.records == 1, "it stores one record under its subject and authority");
        m_report.check(first.priority == m_wrapper.getPriority(),
                       "the record has the priority of the registration");
        checkContent(first.payload);
        m_report.check(isSuccess(push(explorer, "a second pushCollection")),
                       "a second push succeeds");
        m_report.check(stored().records == 1, "it replaces the record");
        stop();
        if (m_wrapper.getPriority() == ~0u)
            return;
        if (m_report.check(storeHigher(m_repository, *m_wrapper.getAuthority(),
                                       *m_wrapper.getSubject(), m_wrapper.getPriority() + 1),
                           "a record of higher priority takes its place")) {
            m_report.check(!isSuccess(push(explorer, "pushCollection against a higher priority")),
                           "a push that the store refuses is no success");
            m_report.check(stored().priority == m_wrapper.getPriority() + 1,
                           "and leaves what is stored");
        }
    }

    bool pull(ExplorerPull& explorer, Sink& sink, const char* text = "")
    {
        bool delivered = false;
        m_report.doesNotThrow("collectionRequested", [&] {
            delivered = explorer.collectionRequested(DQ_DISCOVERY_DATA, *m_wrapper.getAuthority(),
                                                     *m_wrapper.getSubject(), m_state, text, &sink);
        });
        return delivered;
    }

    void checkPull(ExplorerPull& explorer)
    {
        Sink sink;
        m_report.check(pull(explorer, sink), "a pull delivers");
        m_report.check(sink.opened && !sink.writtenUnopened, "it opens the data before it writes");
        checkContent(sink.content);
        Sink filtered;
        pull(explorer, filtered,
             "<FilterParameters><QueryString>a = 1</QueryString>"
             "</FilterParameters>");
        Sink closed;
        closed.refusesOpen = true;
        m_report.check(!pull(explorer, closed), "data that cannot be opened is no delivery");
        Sink full;
        full.refusesWrites = true;
        m_report.check(!pull(explorer, full), "data that cannot be written is no delivery");
        checkPullsAtOnce(explorer);
        stop();
    }

    void checkPullsAtOnce(ExplorerPull& explorer)
    {
        Sink sinks[AT_ONCE];
        bool delivered[AT_ONCE] = {};
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < AT_ONCE; ++i)
            threads.emplace_back([&, i] {
                try {
                    delivered[i] = explorer.collectionRequested(
                        DQ_DISCOVERY_DATA, *m_wrapper.getAuthority(), *m_wrapper.getSubject(),
                        m_state, "", &sinks[i]);
                } catch (...) {
                    delivered[i] = false;
                }
            });
        for (std::thread& thread : threads)
            thread.join();
        bool all = true;
        for (unsigned i = 0; i < AT_ONCE; ++i)
            all = all && delivered[i] && !sinks[i].content.empty();
        m_report.check(all, std::to_string(AT_ONCE) + " pulls at once all deliver");
    }

    void checkContent(const std::string& content)
    {
        m_report.check(!content.empty(), "its collection is not empty");
        if (!content.empty() && content.front() == '<')
            m_report.check(isWellFormed(content), "its collection is well-formed XML");
    }

    const ExplorerWrapper& m_wrapper;
    Explorer& m_explorer;
    CheckedRepository& m_repository;
    Report& m_report;
    AutoDereference<Tlx::TLXRefCounted> m_state;
};

} // namespace

bool Report::check(bool held, const std::string& sentence)
{
    ++(held ? m_passed : m_failed);
    std::printf("  %-6s %s\n", held ? "ok" : "FAILED", sentence.c_str());
    return held;
}

bool Report::doesNotThrow(const std::string& what, const std::function<void()>& call)
{
    std::string thrown;
    try {
        call();
    } catch (const std::exception& e) {
        thrown = std::string(": ") + e.what();
    } catch (...) {
        thrown = ": something that is no exception";
    }
    return thrown.empty() || check(false, what + " throws nothing" + thrown);
}

void checkLibrary(const std::string& library, CheckedRepository& repository, Report& report)
{
    std::printf("%s\n", library.c_str());
    const Tlx::EngineContext context(true);
    Tlx::PluginDirector& director = *Tlx::getEngineSingleton<Tlx::PluginDirector>(context);
    RegisterExplorerInterface entry;
    std::string resolvedName;
    if (!report.check(director.loadPluginInterface(library, entry, resolvedName),
                      "it loads, and exports RegisterExplorers"))
        return;
    entry.call(&repository);
    RegisterExplorerParserInterface parsers;
    if (director.loadPluginInterface(library, parsers, resolvedName))
        parsers.call(&repository);
    int examined = 0;
    for (const ExplorerSet& set : {repository.getPushExplorers(), repository.getPullExplorers()})
        for (const auto& wrapper : set)
            if (wrapper->getLibrary() == library) {
                ++examined;
                Examination(*wrapper, repository, report).run();
            }
    report.check(examined > 0, "it registered an explorer");
}

} // namespace Veltrane::Quillmark::Kit
