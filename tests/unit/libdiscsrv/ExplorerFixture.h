#pragma once
// Explorers, a repository and a reactor for tests.

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <ace/Event_Handler_Handle_Timeout_Upcall.h>
#include <ace/Reactor.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/TP_Reactor.h>
#include <ace/Time_Policy.h>
#include <ace/Timer_Heap_T.h>

#include <tlx/Orb.h>

#include "DiscoveryRepository.h"
#include "PeerLink.h"

namespace QmTest {

namespace Tlx = Veltrane::Quillmark::Tlx;
namespace Disc = Veltrane::Quillmark::Tlx::DiscoverySvc;

using Calls = std::vector<std::string>;

/// Records its calls, and runs the functions that the test sets.
class FakePush : public virtual Disc::ExplorerPush
{
  public:
    explicit FakePush(std::string name = "push") : m_name(std::move(name)) {}
    void startExploration(const Tlx::EngineContext&, const Disc::Authority& authority,
                          const Disc::Subject& subject, Tlx::AutoDereference<Tlx::TLXRefCounted>&,
                          Disc::DiscoveryFactory*) override
    {
        note("start " + subject.getSubject().utf8() + " of " + authority.getName().utf8());
        if (onStart)
            onStart();
    }
    void stopExploration(const Disc::Authority& authority, const Disc::Subject& subject,
                         Tlx::AutoDereference<Tlx::TLXRefCounted>&) override
    {
        note("stop " + subject.getSubject().utf8() + " of " + authority.getName().utf8());
        if (onStop)
            onStop();
    }
    const char* getExplorerName() const override { return m_name.c_str(); }
    bool pushCollection(const Disc::Authority& authority, const Disc::Subject& subject,
                        const Disc::CollectionAttributes& pushed,
                        Tlx::AutoDereference<Tlx::TLXRefCounted>&, Disc::DiscoveryFactory* factory,
                        Disc::DiscoveryResult& result) override
    {
        note("push " + subject.getSubject().utf8() + " of " + authority.getName().utf8());
        attributes.push_back(pushed);
        if (onPush)
            onPush(factory, result);
        return answer;
    }

    Calls calls;
    std::vector<Disc::CollectionAttributes> attributes;
    std::function<void()> onStart;
    std::function<void()> onStop;
    std::function<void(Disc::DiscoveryFactory*, Disc::DiscoveryResult&)> onPush;
    bool answer = true;

  protected:
    ~FakePush() override = default;

  private:
    /// Uses a lock, because a stop may come during a push.
    void note(std::string call)
    {
        const std::lock_guard guard(m_mutex);
        calls.push_back(std::move(call));
    }

    const std::string m_name;
    std::mutex m_mutex;
};

class FakePull : public virtual Disc::ExplorerPull
{
  public:
    explicit FakePull(std::string text = "pulled") : content(std::move(text)) {}
    const char* getExplorerName() const override { return "pull"; }
    bool collectionRequested(Disc::DiscoveryQuery query, const Disc::Authority& authority,
                             const Disc::Subject& subject,
                             Tlx::AutoDereference<Tlx::TLXRefCounted>&, const char* text,
                             Disc::CollectionData* data) override
    {
        calls.push_back(std::to_string(static_cast<int>(query)) + " " +
                        subject.getSubject().utf8() + " of " + authority.getName().utf8() + " [" +
                        text + "]");
        if (onPull)
            onPull();
        return data->open(Disc::OM_UPDATE, "") &&
               data->writeCollection(content.size(), content.data()) && answer;
    }

    Calls calls;
    std::string content;
    std::function<void()> onPull;
    bool answer = true;

  protected:
    ~FakePull() override = default;
};

/// A repository on a master or a client, as the test chooses.
class FakeRepository : public Disc::DiscoveryRepository
{
  public:
    bool isMaster() const override { return master; }
    bool isGenericDS() const override { return true; }
    void getMasterServerName(Tlx::TlxHostname& out) const override
    {
        out.setHostname(Tlx::TlxString(masterName));
    }
    bool master = false;
    std::string masterName;

    void push(const std::string& subject, const std::string& authority, unsigned priority,
              const Disc::ExplorerPush& explorer, Disc::AuthorityType type = Disc::AT_QMKCLIENT)
    {
        const Disc::Subject of(subject);
        const Disc::Authority by(authority, type);
        registerExplorer(&of, &explorer, priority, &by);
    }
    void pull(const std::string& subject, const std::string& authority, unsigned priority,
              const Disc::ExplorerPull& explorer, Disc::AuthorityType type = Disc::AT_QMKCLIENT)
    {
        const Disc::Subject of(subject);
        const Disc::Authority by(authority, type);
        registerExplorer(&of, &explorer, priority, &by, true);
    }
    /// "subject/authority priority" of each entry, in the order of the set.
    static Calls entries(const Disc::ExplorerSet& set)
    {
        Calls names;
        for (const auto& wrapper : set)
            names.push_back(wrapper->getSubject()->getSubject().utf8() + "/" +
                            wrapper->getAuthority()->getName().utf8() + " " +
                            std::to_string(wrapper->getPriority()));
        return names;
    }
    Calls pushEntries() const { return entries(getPushExplorers()); }
    Calls pullEntries() const { return entries(getPullExplorers()); }

  protected:
    ~FakeRepository() override = default;
};

/// A registration of the authority "a".
inline Tlx::AutoDereference<Disc::ExplorerWrapper>
entry(const Disc::Explorer& explorer, const std::string& subject, unsigned priority)
{
    const Disc::Subject of(subject);
    const Disc::Authority by("a", Disc::AT_QMKCLIENT);
    return Tlx::AutoDereference<Disc::ExplorerWrapper>(
        new Disc::ExplorerWrapper(&explorer, priority, &of, &by));
}

/// A reactor without a thread. The test moves its time forward.
class FakeReactor
{
  public:
    FakeReactor() : m_reactor(new ACE_TP_Reactor(HANDLES, false, nullptr, &m_timers), true)
    {
        s_now = 1000;
        m_timers.set_time_policy(ACE_FPointer_Time_Policy(&now));
        Tlx::setAceReactor(&m_reactor);
    }
    ~FakeReactor() { Tlx::setAceReactor(nullptr); }
    FakeReactor(const FakeReactor&) = delete;
    FakeReactor& operator=(const FakeReactor&) = delete;

    /// Lets time pass and runs the timers that are due. Returns how many ran.
    int pass(long seconds)
    {
        s_now += seconds;
        int count = 0;
        ACE_Time_Value noWait;
        while (m_reactor.handle_events(&noWait) > 0)
            ++count;
        return count;
    }
    /// The number of scheduled runs.
    int scheduled()
    {
        int count = 0;
        ACE_Timer_Queue_Iterator_T<ACE_Event_Handler*>& each = m_timers.iter();
        for (each.first(); !each.isdone(); each.next())
            ++count;
        return count;
    }

  private:
    static ACE_Time_Value now() { return ACE_Time_Value(s_now); }
    static inline std::atomic<time_t> s_now{0};
    /// Its own handles must be below it, whatever is open before.
    static constexpr std::size_t HANDLES = 256;

    ACE_Timer_Heap_T<ACE_Event_Handler*, ACE_Event_Handler_Handle_Timeout_Upcall,
                     ACE_SYNCH_RECURSIVE_MUTEX, ACE_FPointer_Time_Policy>
        m_timers;
    ACE_Reactor m_reactor;
};

} // namespace QmTest
