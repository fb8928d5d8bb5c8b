// The discovery service's host daemon.

#include <memory>

#include <DiscoverySvc.h>
#include <ServiceCounters.h>

#include "Daemon.h"

using namespace Veltrane::Quillmark;

int main(int argc, char** argv)
{
    Qmdisco::Hosted hosted;
    hosted.makeService = [](bool foreground) {
        return std::make_unique<Tlx::DiscoverySvc::DiscoverySvc>(foreground);
    };
    hosted.counters = [] {
        Qmdisco::Counters counters;
        for (const auto& counter : Tlx::DiscoverySvc::serviceCounters())
            counters.emplace_back(counter.name, counter.value);
        return counters;
    };
    return Qmdisco::runProgram(argc, argv, hosted);
}
