#include "OwnNames.h"

#include <algorithm>

#include <tlx/Endpoint.h>
#include <tlx/HostConfig.h>
#include <tlx/Resolver.h>
#include <tlx/String.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

bool OwnNames::isOwn(const std::string& claimed, const RequestPeer& peer,
                     const Addresses& interfaces)
{
    if (!isHost(claimed))
        return false;
    const std::string name = comparableHost(claimed);
    if (!peer.certificateName.empty())
        return name == comparableHost(peer.certificateName);
    const auto address = NumericAddress::parse(peer.address);
    if (!address)
        return false;
    if (isLocal(*address, interfaces) &&
        name == comparableHost(HostConfig::instance().localHostName()))
        return true;
    const Claim claim{name, peer.address};
    {
        const std::lock_guard guard(m_mutex);
        if (isKept(m_own, claim))
            return true;
        if (isKept(m_foreign, claim) || m_resolutions >= MAX_RESOLUTIONS ||
            m_resolving[peer.address] >= MAX_RESOLUTIONS_OF_A_PEER)
            return false;
        ++m_resolutions;
        ++m_resolving[peer.address];
    }
    const bool own = resolvesTo(claim);
    const std::lock_guard guard(m_mutex);
    --m_resolutions;
    if (--m_resolving[peer.address] == 0)
        m_resolving.erase(peer.address);
    if (own)
        keep(m_own, claim, OWN_NAME_KEPT, MAX_OWN_NAMES);
    else
        keep(m_foreign, claim, FOREIGN_NAME_KEPT, MAX_FOREIGN_NAMES);
    return own;
}

void OwnNames::clear()
{
    const std::lock_guard guard(m_mutex);
    m_own.clear();
    m_foreign.clear();
}

bool OwnNames::resolvesTo(const Claim& claim)
{
    const auto& [name, address] = claim;
    const auto wanted = NumericAddress::parse(address);
    const auto found = resolveHost(HostConfig::instance().endpointOf(name).address, OWN_NAME_LIMIT);
    return std::any_of(found.begin(), found.end(), [&](const std::string& each) {
        return NumericAddress::parse(each) == wanted;
    });
}

bool OwnNames::isKept(Answers& answers, const Claim& claim)
{
    const auto found = answers.find(claim);
    if (found == answers.end())
        return false;
    if (found->second > Clock::now())
        return true;
    answers.erase(found);
    return false;
}

void OwnNames::keep(Answers& answers, const Claim& claim, std::chrono::seconds limit,
                    std::size_t most)
{
    if (answers.size() >= most && answers.find(claim) == answers.end())
        std::erase_if(answers,
                      [now = Clock::now()](const auto& each) { return each.second <= now; });
    // The answer that would have ended first goes.
    if (answers.size() >= most && answers.find(claim) == answers.end())
        answers.erase(
            std::min_element(answers.begin(), answers.end(),
                             [](const auto& a, const auto& b) { return a.second < b.second; }));
    answers[claim] = Clock::now() + limit;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
