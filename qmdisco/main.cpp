// The discovery service's host daemon.

#include <memory>

#include <DiscoveryRepository.h>
#include <DiscoverySvc.h>
#include <ServiceCounters.h>

#include "Daemon.h"

using namespace Veltrane::Quillmark;

namespace {

Qmdisco::Counters counters()
{
    Qmdisco::Counters result;
    for (const auto& counter : Tlx::DiscoverySvc::serviceCounters())
        result.emplace_back(counter.name, counter.value);
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

} // namespace

int main(int argc, char** argv)
{
    Qmdisco::Hosted hosted;
    hosted.makeService = [](bool foreground) {
        return std::make_unique<Tlx::DiscoverySvc::DiscoverySvc>(foreground);
    };
    hosted.counters = &counters;
    hosted.explorers = &explorers;
    return Qmdisco::runProgram(argc, argv, hosted);
}
