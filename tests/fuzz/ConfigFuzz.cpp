// The host configuration's text, which anybody may have edited.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <tlx/HostConfig.h>

namespace {

using namespace Veltrane::Quillmark::Tlx;

void require(bool condition)
{
    if (!condition)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    HostConfig& config = HostConfig::instance();
    config.readText(std::string(reinterpret_cast<const char*>(data), size), "qm.conf");
    for (const HostConfig::Problem& problem : config.problems())
        require(problem.toText().starts_with("qm.conf:"));
    // Whatever stood there, what is answered is usable.
    require(config.number(ConfigKey::LOG_LEVEL) <= 9);
    require(config.number(ConfigKey::STOP_LIMIT) >= 1);
    require(config.number(ConfigKey::MAX_MESSAGE_BYTES) >= 65536);
    require(!config.localHostName().empty());
    Endpoint endpoint;
    require(parseEndpoint(toText(config.listenEndpoint()), endpoint));
    require(endpoint == config.listenEndpoint());
    require(config.endpointOf("backup1").port != 0);
    bool flag = false;
    config.getBoolean(ConfigKey::REPORT_CLIENT_DISCOVERIES, flag);
    return 0;
}
