#include "Research.h"

#include <tlx/HostConfig.h>

#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

// The researcher asks the master. Here that is the service which the other commands would speak to,
// where it listens; on its own host also under the name that its records carry.
bool Research::begin()
{
    if (m_begun)
        return true;
    Tlx::HostConfig& config = Tlx::HostConfig::instance();
    const std::string endpoint = toText(m_target.endpoint) + "\n";
    std::string text =
        "SERVER = " + m_target.host + "\nENDPOINT." + m_target.host + " = " + endpoint;
    if (m_target.local)
        text += "ENDPOINT." + config.localHostName() + " = " + endpoint;
    config.addText(text, "--host");
    m_begun = Svc::initDiscoveryResearch() != nullptr;
    return m_begun;
}

Outcome Research::read(Svc::DiscoveryQuery query, const std::string& subject,
                       const std::string& authority, const Svc::FilterParameters* filter,
                       const EachDiscovery& each)
{
    if (!begin())
        return Failure{EC_FAILURE, "discoveries cannot be read back by this process"};
    const auto all = Svc::researchDiscoveries(query, subject, authority, Svc::AT_ANYANDALL);
    if (!all)
        return Failure{EC_BROKE_OFF, "the discovery service on " + escaped(m_target.host) +
                                         " did not answer the query"};
    for (;;) {
        const Tlx::AutoDereference<Svc::CollectionItemIterator> items(
            (*all)->getNextCollectionItemIterator(filter));
        if (!items)
            return {};
        each(*items);
    }
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
