// Fuzzes the text of the host configuration. People edit it, so it may contain anything.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <tlx/HostConfig.h>
#include <tlx/OrbKeys.h>

#include "DaemonKeys.h"
#include "Fuzz.h"
#include "ProductKeys.h"
#include "ServiceKeys.h"

namespace {

using namespace Veltrane::Quillmark::Tlx;

void requireWithin(const DeclaredKey& key, std::uint64_t lowest, std::uint64_t highest)
{
    const std::uint64_t number = HostConfig::instance().number(key);
    require(number >= lowest && number <= highest);
    require(HostConfig::instance().getNumber(key).value_or(number) == number);
}

// The text of an endpoint must parse to the same endpoint.
void requireReadable(const Endpoint& endpoint)
{
    require(parseEndpoint(toText(endpoint)) == endpoint);
}

void requireProblems(const std::vector<HostConfig::Problem>& problems)
{
    require(problems.size() <= 101); // a hostile file must not flood the log
    unsigned last = 0;
    for (const HostConfig::Problem& problem : problems) {
        require(problem.file == "qm.conf" && problem.toText().starts_with("qm.conf:"));
        require(problem.toText().ends_with(problem.text) && !problem.text.empty());
        // Each problem has one line, in the order of the file.
        require(problem.text.find_first_of("\r\n") == std::string::npos);
        require(problem.line == 0 ? problems.size() == 1 : problem.line > last);
        last = problem.line;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    Veltrane::Quillmark::declareProductKeys();
    HostConfig& config = HostConfig::instance();
    config.readText(text, "qm.conf");
    requireProblems(config.problems());
    // For any text, the values must be in their ranges.
    requireWithin(ConfigKey::LOG_LEVEL, 0, 9);
    requireWithin(ConfigKey::LOG_BURST, 0, 1000000);
    requireWithin(ConfigKey::LOG_MAX_BYTES, 4096, std::uint64_t{1} << 40);
    requireWithin(ConfigKey::LOG_ERRORS_MAX_BYTES, 4096, std::uint64_t{1} << 40);
    requireWithin(ConfigKey::LOG_KEEP, 0, 100);
    requireWithin(ConfigKey::STOP_LIMIT, 1, 3600);
    requireWithin(ConfigKey::MAX_MESSAGE_BYTES, 65536, std::uint64_t{1} << 30);
    require(!config.localHostName().empty());
    requireReadable(config.listenEndpoint());
    requireReadable(config.endpointOf("backup1"));
    require(config.endpointOf("backup1").port != 0);
    require(config.getString(ConfigKey::REPORT_CLIENT_DISCOVERIES).has_value() ==
            config.getBoolean(ConfigKey::REPORT_CLIENT_DISCOVERIES).has_value());
    for (const DeclaredKey& key :
         {ConfigKey::SERVER, ConfigKey::CLIENT_NAME, ConfigKey::PUBLISH_ADDRESS}) {
        const auto value = config.getString(key);
        require(!value || (!value->empty() && value->find('\0') == std::string::npos));
    }

    // No text makes a list more open than its good entries.
    for (const DeclaredKey& key : {ConfigKey::ALLOW_WRITE, ConfigKey::ALLOW_REGISTER})
        for (const std::string& entry : config.list(key))
            require(DiscoverySvc::isAccessEntry(entry));
    for (const DeclaredKey& key : {ConfigKey::ALLOW_READ, ConfigKey::ALLOW_CONTROL})
        for (const std::string& entry : config.list(key))
            require(DiscoverySvc::isAccessEntryWithoutOwn(entry));
    requireWithin(ConfigKey::MAX_REMOTE_PRIORITY, 0, 4294967295);

    if (const auto endpoint = parseEndpoint(text))
        requireReadable(*endpoint);
    return 0;
}
