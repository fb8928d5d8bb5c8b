#pragma once
// The keys of the host configuration that the service library reads.

#include <array>
#include <limits>

#include <tlx/ConfigKey.h>

#include "AccessEntry.h"

namespace Veltrane::Quillmark::Tlx {

namespace ConfigKey {

/// FALSE: the service does not start.
inline constexpr DeclaredKey REPORT_CLIENT_DISCOVERIES =
    DeclaredKey::boolean("REPORT_CLIENT_DISCOVERIES");

// Bounds on what another host may send.
/// Records of one query.
inline constexpr DeclaredKey REMOTE_MAX_RECORDS =
    DeclaredKey::number("REMOTE_MAX_RECORDS", 1, 10000000, 1000000);
/// Bytes of one collection, or of the records of one query.
inline constexpr DeclaredKey REMOTE_MAX_BYTES =
    DeclaredKey::number("REMOTE_MAX_BYTES", 1024, std::uint64_t{1} << 30, 67108864);
/// Seconds for one collection, or for one query.
inline constexpr DeclaredKey REMOTE_MAX_SECONDS =
    DeclaredKey::number("REMOTE_MAX_SECONDS", 1, 86400, 600);

// Bounds on what clients hold here (see OpenObjects.h).
/// Iterators of all clients.
inline constexpr DeclaredKey MAX_ITERATORS =
    DeclaredKey::number("MAX_ITERATORS", 1, 1000000, 10000);
/// Iterators of one client.
inline constexpr DeclaredKey MAX_ITERATORS_PER_PEER =
    DeclaredKey::number("MAX_ITERATORS_PER_PEER", 1, 1000000, 2500);
/// Writers of one client. The store has names for 1,000 in all.
inline constexpr DeclaredKey MAX_WRITERS_PER_PEER =
    DeclaredKey::number("MAX_WRITERS_PER_PEER", 1, 1000, 250);
/// Seconds after which a writer that nobody uses is given up. 0: never.
inline constexpr DeclaredKey WRITER_IDLE_LIMIT =
    DeclaredKey::number("WRITER_IDLE_LIMIT", 0, 31536000, 86400);
/// Bytes of all pulled collections, and of all lists from other hosts, in memory.
inline constexpr DeclaredKey MAX_PULLED_BYTES =
    DeclaredKey::number("MAX_PULLED_BYTES", 1024, std::uint64_t{1} << 40, 536870912);

// Who may do what. docs/operations.md says what the entries of the lists mean.
/// Queries and reads.
inline constexpr DeclaredKey ALLOW_READ =
    DeclaredKey::list("ALLOW.read", &DiscoverySvc::isAccessEntryWithoutOwn,
                      DiscoverySvc::NO_ACCESS_ENTRY_WITHOUT_OWN, "*")
        .takenWhileRunning();
/// Puts.
inline constexpr DeclaredKey ALLOW_WRITE =
    DeclaredKey::list("ALLOW.write", &DiscoverySvc::isAccessEntry, DiscoverySvc::NO_ACCESS_ENTRY,
                      "*")
        .takenWhileRunning();
/// Registrations of explorers.
inline constexpr DeclaredKey ALLOW_REGISTER =
    DeclaredKey::list("ALLOW.register", &DiscoverySvc::isAccessEntry, DiscoverySvc::NO_ACCESS_ENTRY,
                      "*")
        .takenWhileRunning();
/// The stop of the service, and refreshes.
inline constexpr DeclaredKey ALLOW_CONTROL =
    DeclaredKey::list("ALLOW.control", &DiscoverySvc::isAccessEntryWithoutOwn,
                      DiscoverySvc::NO_ACCESS_ENTRY_WITHOUT_OWN, "local, master")
        .takenWhileRunning();
/// The highest priority that a peer outside ALLOW.control may put or register with.
inline constexpr DeclaredKey MAX_REMOTE_PRIORITY =
    DeclaredKey::number("MAX_REMOTE_PRIORITY", 0, std::numeric_limits<std::uint32_t>::max(),
                        std::numeric_limits<std::uint32_t>::max())
        .takenWhileRunning();

// The store.
/// Seconds that a request waits while another process locks a record.
inline constexpr DeclaredKey LOCK_WAIT_SECONDS =
    DeclaredKey::number("LOCK_WAIT_SECONDS", 1, 3600, 20);
/// Records whose metadata is kept in memory. 0: none.
inline constexpr DeclaredKey CACHED_RECORDS =
    DeclaredKey::number("CACHED_RECORDS", 0, 10000000, 500000);

} // namespace ConfigKey

namespace DiscoverySvc {

inline constexpr std::array SERVICE_KEYS{ConfigKey::REPORT_CLIENT_DISCOVERIES,
                                         ConfigKey::REMOTE_MAX_RECORDS,
                                         ConfigKey::REMOTE_MAX_BYTES,
                                         ConfigKey::REMOTE_MAX_SECONDS,
                                         ConfigKey::MAX_ITERATORS,
                                         ConfigKey::MAX_ITERATORS_PER_PEER,
                                         ConfigKey::MAX_WRITERS_PER_PEER,
                                         ConfigKey::WRITER_IDLE_LIMIT,
                                         ConfigKey::MAX_PULLED_BYTES,
                                         ConfigKey::ALLOW_READ,
                                         ConfigKey::ALLOW_WRITE,
                                         ConfigKey::ALLOW_REGISTER,
                                         ConfigKey::ALLOW_CONTROL,
                                         ConfigKey::MAX_REMOTE_PRIORITY,
                                         ConfigKey::LOCK_WAIT_SECONDS,
                                         ConfigKey::CACHED_RECORDS};

} // namespace DiscoverySvc
} // namespace Veltrane::Quillmark::Tlx
