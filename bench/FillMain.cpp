// Fills a store with records.
//
// usage: bench_fill DIRECTORY AUTHORITY SIZE FROM TO
// The records have the numbers FROM to TO - 1, and payloads of SIZE bytes.

#include <cstdio>
#include <stdexcept>

#include <unistd.h>

#include <DiscDB.h>
#include <tlx/Log.h>

#include "Filling.h"

namespace Bench = Veltrane::Quillmark::Bench;
namespace Tlx = Veltrane::Quillmark::Tlx;

int main(int argc, char** argv)
{
    if (argc != 6) {
        std::fprintf(stderr, "usage: bench_fill DIRECTORY AUTHORITY SIZE FROM TO\n");
        return 2;
    }
    try {
        Tlx::LoggerFactory::instance().setLevel(0);
        Tlx::DiscoverySvc::getDiscoveryDBDatabase()->init(argv[1]);
        Bench::fillStore(argv[1], argv[2], std::stoul(argv[3]), std::stoul(argv[4]),
                         std::stoul(argv[5]));
        ::sync();
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_fill: %s\n", e.what());
        return 1;
    }
}
