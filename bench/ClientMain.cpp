// One client of the benchmark, in a process of its own. ClientLoop.h has its protocol.

#include <cstdio>

#include <tlx/Log.h>
#include <tlx/Orb.h>
#include <tlx/Servant.h>

#include "ClientLoop.h"
#include "StoreFloor.h"
#include "WireOperations.h"

namespace {

namespace Tlx = Veltrane::Quillmark::Tlx;

/// The exception that is being handled, as one line.
std::string describeCurrent()
{
    try {
        throw;
    } catch (const CORBA::Exception& e) {
        return Tlx::describeException(e);
    } catch (const std::exception& e) {
        return e.what();
    }
}

} // namespace

int main()
{
    using namespace Veltrane::Quillmark::Bench;
    Tlx::LoggerFactory::instance().setLevel(0);
    try {
        const Tlx::Orb orb(true, "", "bench", false);
        auto operations = serviceOperations(orb);
        operations.merge(echoOperations(orb));
        operations.merge(floorOperations());
        return serveDriver(operations, describeCurrent);
    } catch (const Tlx::OrbError& e) {
        std::fprintf(stderr, "bench_client: %s\n", e.what());
        return 1;
    }
}
