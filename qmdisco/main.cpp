// The discovery service's host daemon.

#include <memory>

#include <malloc.h>

#include <DiscoveryRepository.h>
#include <DiscoverySvc.h>
#include <MemoryCeiling.h>
#include <OpenWriters.h>
#include <ServiceCounters.h>

#include "Daemon.h"

using namespace Veltrane::Quillmark;

namespace {

Qmdisco::Counters counters()
{
    Qmdisco::Counters result;
    for (const auto& counter : Tlx::DiscoverySvc::serviceCounters())
        result.emplace_back(counter.name, counter.value);
    result.emplace_back("memoryCeiling", Tlx::DiscoverySvc::memoryCeiling());
    return result;
}

Qmdisco::Explorers explorers()
{
    const Tlx::DiscoverySvc::DiscoveryRepository& repository =
        *Tlx::DiscoverySvc::getDiscoveryRepository();
    Qmdisco::Explorers result;
    for (const auto& each : repository.getExplorerStatus())
        result.lines.push_back({each.kind, each.name, each.subject, each.authority, each.type,
                                each.priority, each.library, each.last.seconds(), each.outcome});
    result.nextPush = repository.getNextPush().seconds();
    return result;
}

Qmdisco::Writers writers()
{
    const Tlx::DiscoverySvc::OpenWriters open =
        Tlx::DiscoverySvc::openWriters(Qmdisco::MAX_WRITER_LINES);
    Qmdisco::Writers result{open.open, open.peers, {}};
    for (const auto& each : open.most)
        result.most.push_back({each.peer, each.count, each.oldest.seconds()});
    return result;
}

/// Gives large blocks back to the system when they are freed. The names of a large store are one
/// block, and each walk makes a new one. By default the C library would keep such blocks, for each
/// thread some. Pages of 1 MiB stay below the limit: they come and go with each call. The library
/// keeps them in its arenas, by default eight for each processor.
void boundKeptMemory()
{
    constexpr int ARENAS = 8;
    (void)::mallopt(M_ARENA_MAX, ARENAS);
    constexpr int LARGE = (1 << 20) + (64 << 10);
    (void)::mallopt(M_MMAP_THRESHOLD, LARGE);
    (void)::mallopt(M_TRIM_THRESHOLD, 4 * LARGE); // otherwise each page would go back as well
}

} // namespace

int main(int argc, char** argv)
{
    boundKeptMemory();
    Qmdisco::Hosted hosted;
    hosted.makeService = [](bool foreground) {
        return std::make_unique<Tlx::DiscoverySvc::DiscoverySvc>(foreground);
    };
    hosted.counters = &counters;
    hosted.explorers = &explorers;
    hosted.writers = &writers;
    return Qmdisco::runProgram(argc, argv, hosted);
}
