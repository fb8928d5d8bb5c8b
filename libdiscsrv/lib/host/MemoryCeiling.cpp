#include "MemoryCeiling.h"

#include <tlx/HostConfig.h>
#include <tlx/OrbCounts.h>
#include <tlx/OrbKeys.h>

#include "DiscDB.h"
#include "DiscoveryRepository.h"
#include "ServiceKeys.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr std::uint64_t KIB = 1024;
constexpr std::uint64_t MIB = 1024 * KIB;

// Each figure is above what was measured.

/// Programs, libraries, the log's queue, what the C library keeps in its arenas.
constexpr std::uint64_t PROCESS = 96 * MIB;
/// Beside the arguments of its request: a page, the reply, the used part of the stack.
constexpr std::uint64_t THREAD = 3 * MIB;
constexpr std::uint64_t CONNECTION = 8 * KIB;
/// What a connection takes in addition while its TLS handshake lasts. Afterwards it is a quarter.
constexpr std::uint64_t HANDSHAKE = 96 * KIB;
/// Without the bytes of a pulled collection.
constexpr std::uint64_t OPEN_OBJECT = 8 * KIB;
/// A registered explorer of another host, with names of full length.
constexpr std::uint64_t REGISTRATION = 32 * KIB;
constexpr std::uint64_t CACHED_RECORD = 400;

} // namespace

std::uint64_t memoryCeiling()
{
    const HostConfig& config = HostConfig::instance();
    const auto number = [&config](const DeclaredKey& key) { return config.number(key); };
    const bool hasTls = config.getString(ConfigKey::TLS).value_or("off") != "off";
    const std::uint64_t connections = number(ConfigKey::MAX_CONNECTIONS);
    return PROCESS +
           number(ConfigKey::REQUEST_THREADS) * (number(ConfigKey::MAX_MESSAGE_BYTES) + THREAD) +
           number(ConfigKey::MAX_ARRIVING_BYTES) +
           (connections + connectionReserve(connections)) *
               (CONNECTION + (hasTls ? HANDSHAKE : 0)) +
           (number(ConfigKey::MAX_ITERATORS) + MAX_TEMPORARY_NAMES) * OPEN_OBJECT +
           number(ConfigKey::MAX_PULLED_BYTES) + DiscoveryRepository::MAX_EXPLORERS * REGISTRATION +
           number(ConfigKey::CACHED_RECORDS) * CACHED_RECORD;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
