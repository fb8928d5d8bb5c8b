#include "BenchedService.h"

#include <fstream>
#include <stdexcept>

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tlx/HostConfig.h>
#include <tlx/Log.h>

#include "DiscoverySvc.h"
#include "EchoServant.h"

namespace Veltrane::Quillmark::Bench {

BenchedService::BenchedService()
{
    std::string name = (std::filesystem::temp_directory_path() / "qmbench.XXXXXX").string();
    int report[2];
    int control[2];
    if (!::mkdtemp(name.data()) || ::pipe(report) != 0 || ::pipe(control) != 0)
        throw std::runtime_error("no temporary directory or pipe");
    m_root = name;
    m_pid = ::fork();
    if (m_pid == 0) {
        ::close(report[0]);
        ::close(control[1]);
        ::_exit(serve(report[1], control[0]));
    }
    ::close(report[1]);
    ::close(control[0]);
    m_control = control[1];
    char c;
    while (::read(report[0], &c, 1) == 1)
        m_endpoint += c;
    ::close(report[0]);
    if (m_endpoint.empty())
        throw std::runtime_error("the service did not come up");
}

BenchedService::~BenchedService()
{
    ::close(m_control); // the service ends when this end is closed
    int status = 0;
    ::waitpid(m_pid, &status, 0);
    std::filesystem::remove_all(m_root);
}

int BenchedService::serve(int report, int control)
{
    Tlx::HostConfig::instance().setRoot(m_root.string());
    std::filesystem::create_directories(m_root / "etc");
    std::ofstream(m_root / "etc" / "qm.conf") << "SERVER = localhost\nLISTEN = 127.0.0.1:0\n";
    Tlx::LoggerFactory::instance().setLevel(0);
    Tlx::DiscoverySvc::DiscoverySvc service(true);
    if (!service.doShouldStart() || service.doRun() != 0)
        return 1;
    Tlx::Orb& orb = *service.getOrb();
    PortableServer::Servant_var<EchoServant> echo(new EchoServant);
    const CORBA::Object_var reference = orb.activateServant(echo.in());
    orb.advertiseObject("Echo", reference);
    orb.serveRequests();
    const std::string endpoint = orb.getEndpoint();
    if (::write(report, endpoint.data(), endpoint.size()) != static_cast<ssize_t>(endpoint.size()))
        return 1;
    ::close(report);
    char c;
    while (::read(control, &c, 1) > 0) { // wait until the other end is closed
    }
    service.doStop();
    service.doExit();
    return 0;
}

} // namespace Veltrane::Quillmark::Bench
