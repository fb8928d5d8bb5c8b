#include "PutHistory.h"

#include <algorithm>
#include <sstream>

namespace QmTest {

PutHistory::PutHistory(const std::string& subject, const Stamped* stored, bool hasExpired,
                       const DiskOperations& operations)
{
    if (stored && hasExpired && stored->timeToLive > 0)
        m_expired = stored->number;
    else if (stored)
        m_begun[stored->number] = m_acknowledged[stored->number] = 0;
    for (std::size_t index = 0; index < operations.size(); ++index) {
        std::istringstream words(operations[index].path);
        std::string event;
        std::string of;
        long number = 0;
        if (operations[index].kind != DiskOperation::NOTE || !(words >> event >> of >> number) ||
            of != subject)
            continue;
        if (event == "begun") {
            m_begun[number] = index + 1;
            m_open.insert(number);
        } else if (event == "acknowledged") {
            m_acknowledged[number] = index + 1;
            m_open.erase(number);
        } else if (event == "refused") {
            m_open.erase(number);
        }
    }
}

bool PutHistory::mayBeWhole(long number) const
{
    if (isOpen(number))
        return true;
    const auto mine = m_acknowledged.find(number);
    return mine != m_acknowledged.end() &&
           std::none_of(m_acknowledged.begin(), m_acknowledged.end(), [&](const auto& other) {
               return other.first != number && m_begun.at(other.first) >= mine->second;
           });
}

bool PutHistory::allows(const std::string& state) const
{
    if (state == "none")
        return m_acknowledged.empty() || !m_open.empty();
    const auto slash = state.find('/');
    const std::string metadata = state.substr(0, slash);
    const std::string payload = state.substr(slash + 1);
    if (payload == "spoilt")
        return false;
    if (metadata == payload)
        return mayBeWhole(std::stol(metadata));
    if (metadata == "mixed" ? m_open.empty() : !isOpen(std::stol(metadata)))
        return false;
    if (payload == "missing")
        return m_acknowledged.empty();
    return mayBeWhole(std::stol(payload)) || std::stol(payload) == m_expired;
}

std::string stepOf(const FileTree& before, const DiskOperations& operations)
{
    std::string step = "before";
    std::uint64_t size = 0; // of the metadata file
    for (const auto& [path, content] : before)
        if (path.ends_with(METADATA) && content)
            size = content->size();
    for (const DiskOperation& operation : operations) {
        const bool isMetadata = operation.path.ends_with(METADATA);
        const bool isPayload = operation.path.ends_with(PAYLOAD);
        if (operation.kind == DiskOperation::WRITE && isMetadata) {
            const std::uint64_t end = operation.at + operation.bytes.size();
            size = std::max(size, end);
            const std::string text =
                operation.bytes.substr(0, operation.bytes.find_last_not_of(' ') + 1);
            const bool isWhole = end == size && text.ends_with("</DiscoveryData>");
            step = text.empty() ? "blanks written"
                   : isWhole    ? "document written"
                                : "document half-written";
        } else if (operation.kind == DiskOperation::RESIZE && isMetadata)
            step = "document cut";
        else if (operation.kind == DiskOperation::SYNC && isMetadata)
            step = step == "blanks written" ? "blanks synced" : "document synced";
        else if (operation.kind == DiskOperation::RENAME && operation.to.ends_with(PAYLOAD))
            step = "payload renamed";
        else if (operation.kind == DiskOperation::SYNC && step == "payload renamed" &&
                 operation.path.ends_with("discovery"))
            step = "directory synced";
        else if (operation.kind == DiskOperation::UNLINK && isPayload)
            step = "payload deleted";
        else if (operation.kind == DiskOperation::UNLINK && isMetadata) {
            step = "metadata deleted";
            size = 0;
        }
    }
    return step;
}

} // namespace QmTest
