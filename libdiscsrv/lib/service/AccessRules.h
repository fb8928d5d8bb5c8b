#pragma once
// Who may do what: the lists ALLOW.* and MAX_REMOTE_PRIORITY of qm.conf.

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <tlx/RequestPeer.h>

#include "AccessList.h"
#include "OwnNames.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

enum class AccessRole : std::uint8_t
{
    READ,     ///< queries and reads, and the iterators that they return
    WRITE,    ///< puts, and the writers that they return
    REGISTER, ///< registrations of explorers
    CONTROL   ///< the stop of the service, and refreshes
};
constexpr std::size_t ACCESS_ROLES = 4;

/// The role that an operation needs. Takes its name on the wire, so `pageSize` is two operations.
/// Nothing for the operations that every object has, such as `_is_a`, and for unknown names: the
/// ORB answers these.
std::optional<AccessRole> roleOf(std::string_view operation);

/// How long a resolution of one name may take, and of all names of a round. The names that a round
/// does not reach come first in the next one.
constexpr std::chrono::seconds ACCESS_NAME_LIMIT{5};
constexpr std::chrono::seconds ACCESS_ROUND_LIMIT{60};
/// How long the start waits for the first round.
constexpr std::chrono::seconds ACCESS_START_LIMIT{2};
/// The time between two rounds, and after a round that left a name without an address.
constexpr std::chrono::seconds ACCESS_ROUND_INTERVAL{120};
constexpr std::chrono::seconds ACCESS_RETRY_INTERVAL{10};
/// How long the last good addresses of a name hold after it stopped resolving.
constexpr std::chrono::hours ACCESS_NAME_KEPT{24};

/// Decides about the requests of other hosts. The process has one object. Any thread may use it,
/// but one thread at a time starts, reloads and stops it.
///
/// The rules of one moment never change. A thread takes them without a lock, and gets the new ones
/// once after each change. No name is resolved on a request's thread, except one that a host claims
/// as its own (OwnNames). A thread of its own resolves the hosts of the lists and the master: at
/// the start, after a reload, and every two minutes. When a name stops resolving, its last good
/// addresses hold for a day. A host that never resolved is admitted by its name only if a
/// certificate carries the name.
///
/// Until start is called, every request is admitted. A refusal is CORBA::NO_PERMISSION, a line in
/// the log and the counter requestsRefused.
class AccessRules
{
  public:
    static AccessRules& instance();

    /// Reads the lists, resolves their names, and makes the ORB ask admits for each request. Starts
    /// the thread; without memory for a thread the addresses stay as they are, and a line says so.
    void start();
    /// Reads the lists again. New requests obey them when it returns. Names that are new have their
    /// addresses a moment later.
    void reload();
    /// Ends the thread. The rules stay in force. After announceStop (tlx/StopNotice.h) it waits for
    /// a tenth of a second at most, otherwise for ACCESS_NAME_LIMIT.
    void stop();

    /// Resolves the names within the limit. The thread calls it. Returns false if a name has no
    /// address.
    bool refresh(std::chrono::milliseconds limit);

    /// Whether the peer may ask for the operation, as far as its name says. If the list has `own`,
    /// the servant must call requireOwner when it knows the arguments. Logs and counts a refusal.
    bool admits(const ArrivingRequest& request);

    /// Refuses this thread's peer unless it has the role for any name, or the list has `own` and
    /// each of the names is the peer's.
    /// @param operation for the log line.
    /// @throws CORBA::NO_PERMISSION
    void requireOwner(AccessRole role, const char* operation,
                      const std::vector<std::string>& names);
    /// Refuses this thread's peer unless it has the role without `own`.
    /// @throws CORBA::NO_PERMISSION
    void requireRole(AccessRole role, const char* operation);
    /// Refuses a priority above MAX_REMOTE_PRIORITY, unless this thread's peer may control.
    /// @throws CORBA::NO_PERMISSION
    void requirePriority(const char* operation, std::uint32_t priority);

    ~AccessRules() = delete; // requests use it until the process ends

  private:
    using Clock = std::chrono::steady_clock;

    /// The rules of one moment.
    struct Rules
    {
        std::array<AccessList, ACCESS_ROLES> lists;
        std::uint32_t maxPriority = 0;
        Addresses interfaces; ///< of this machine, sorted
        const AccessList& of(AccessRole role) const;
    };
    /// What the rules are made of.
    struct Input
    {
        std::array<std::vector<std::string>, ACCESS_ROLES> entries{};
        std::uint32_t maxPriority = 0;
        KnownAddresses known{};
        friend bool operator==(const Input&, const Input&) = default;
    };
    struct Resolved
    {
        Addresses addresses;
        Clock::time_point when;
        bool isMissing = false; ///< the last try found no address
    };

    AccessRules() = default;

    static Input readInput();
    static std::vector<std::string> namesOf(const Input& input);
    static bool check(const ArrivingRequest& request);
    void run();
    void note(const std::string& name, const std::vector<std::string>& found);
    /// Both need m_mutex.
    void publish();
    void addKnown(Input& input) const;
    /// Null before the start. Valid on this thread until its next call.
    const Rules* current();

    /// Held while rules are made of the configuration, never during a resolution. A request takes
    /// it once after a change.
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_isStopping = false;
    bool m_isDue = false;
    std::thread m_thread;
    Input m_input;
    std::map<std::string, Resolved> m_resolved; ///< by comparableHost
    std::string m_next;                         ///< the name that the next round begins with
    std::shared_ptr<const Rules> m_rules;
    std::atomic<std::uint64_t> m_generation{0}; ///< counts the changes of m_rules
    OwnNames m_ownNames;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
