// Serves the floor of the wire benchmark: the ORB as the service uses it, with an object that does
// nothing. Prints its endpoint, and ends at the end of its standard input.

#include <cstdio>
#include <iostream>
#include <limits>

#include <tlx/Log.h>
#include <tlx/Orb.h>
#include <tlx/Servant.h>

#include "EchoServant.h"

int main()
{
    namespace Bench = Veltrane::Quillmark::Bench;
    namespace Tlx = Veltrane::Quillmark::Tlx;
    try {
        Tlx::LoggerFactory::instance().setLevel(0);
        Tlx::Orb orb(false, "127.0.0.1:0", "bench", false);
        const PortableServer::Servant_var<Bench::EchoServant> echo(new Bench::EchoServant(orb));
        const CORBA::Object_var reference = orb.activateServant(echo.in());
        orb.advertiseObject("Echo", reference);
        orb.serveRequests();
        std::cout << orb.getEndpoint() << std::endl;
        std::cin.ignore(std::numeric_limits<std::streamsize>::max());
        orb.destroyObjectRef(reference, PortableServer::POA::_nil());
        return 0;
    } catch (const CORBA::Exception& e) {
        std::fprintf(stderr, "bench_echo: %s\n", Tlx::describeException(e).c_str());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_echo: %s\n", e.what());
    }
    return 1;
}
