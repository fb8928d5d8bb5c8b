// Finds the records that match a query: by exact names, or by a walk over the directory.

#include <algorithm>
#include <array>
#include <cerrno>

#include <tlx/FileSystem.h>
#include <tlx/Wildcard.h>

#include "DiscDB.h"
#include "DiscLog.h"
#include "MetadataCache.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DiscDB";

/// The longest pattern. A file name has at most 255 bytes, so a longer pattern is a mistake or an
/// attack: every file name is compared with the whole pattern.
constexpr std::size_t MAX_PATTERN_BYTES = 1024;

constexpr std::array ALL_TYPES{AT_ANYANDALL, AT_QMKSERVER, AT_QMKCLIENT, AT_EXTSRC, AT_REMOTEPULL};

std::string fileNameOf(AuthorityType type, const std::string& authority, const std::string& subject)
{
    return std::to_string(static_cast<int>(type)) + ' ' + authority + ' ' + subject + ".xml";
}

/// True for a name that only itself matches. It cannot leave the directory.
bool isExact(const std::string& name)
{
    return name.find_first_of("*?/") == std::string::npos;
}

} // namespace

/// A file that may hold a matching record.
struct DBDiscoveryIterator::Candidate
{
    std::string name;
    struct stat status;
};

DBDiscoveryIterator::DBDiscoveryIterator(const char* dir)
    : DiscoveryIterator(AT_ANYANDALL, "*", "*"), m_path(dir)
{
    DISC_TRACE("DBDiscoveryIterator::DBDiscoveryIterator");
}

DBDiscoveryIterator::~DBDiscoveryIterator() = default;

/// Decides once how to find the records, because the query is complete now.
void DBDiscoveryIterator::begin()
{
    m_begun = true;
    m_pattern = m_type == AT_ANYANDALL ? "* " + m_authority + ' ' + m_subject + ".xml"
                                       : fileNameOf(m_type, m_authority, m_subject);
    if (m_pattern.size() > MAX_PATTERN_BYTES) {
        DISC_LOG(1, "A pattern may have " << MAX_PATTERN_BYTES << " bytes, this one has "
                                          << m_pattern.size() << " and matches nothing");
        return;
    }
    if (isExact(m_authority) && isExact(m_subject)) {
        for (const AuthorityType type : ALL_TYPES)
            if (m_type == AT_ANYANDALL || m_type == type)
                m_exact.push_back(fileNameOf(type, m_authority, m_subject));
        return;
    }
    m_dir.reset(FileSystem::current().opendir(m_path.c_str()));
    if (!m_dir)
        DISC_LOG(1, "Unable to open " << m_path << ", error " << errno);
}

std::optional<DBDiscoveryIterator::Candidate> DBDiscoveryIterator::nextExact()
{
    while (!m_exact.empty()) {
        std::string name = std::move(m_exact.back());
        m_exact.pop_back();
        if (const auto status = statusAt(m_path.withFileName(name)))
            return Candidate{std::move(name), *status};
    }
    return std::nullopt;
}

std::optional<DBDiscoveryIterator::Candidate> DBDiscoveryIterator::nextCandidate()
{
    if (!m_begun)
        begin();
    if (!m_dir)
        return nextExact();
    for (;;) {
        errno = 0;
        const dirent* const entry = FileSystem::current().readdir(m_dir.get());
        if (!entry) {
            if (errno != 0)
                DISC_LOG(1, "Unable to read the directory, error " << errno);
            return std::nullopt;
        }
        const std::string_view name = entry->d_name;
        if (!name.ends_with(".xml") || wildcardcmp(m_pattern.c_str(), entry->d_name, 0) != 0)
            continue;
        if (const auto status = statusIn(::dirfd(m_dir.get()), entry->d_name))
            return Candidate{std::string(name), *status};
    }
}

// Compat(remote-pull-hidden): peers do not expect these records unless they ask for their type.
bool DBDiscoveryIterator::isShown(AuthorityType type) const
{
    return type != AT_REMOTEPULL || m_type == AT_REMOTEPULL;
}

Discovery* DBDiscoveryIterator::getNext()
{
    DISC_TRACE("DBDiscoveryIterator::getNext");
    while (const auto candidate = nextCandidate()) {
        AutoDereference<Discovery> discovery(
            getDiscoveryDBDatabase()->getDiscovery(candidate->name.c_str()));
        if (discovery && isShown(discovery->getAuthority()->getType()))
            return discovery.release();
    }
    return nullptr;
}

std::optional<ListedRecord> DBDiscoveryIterator::listNext()
{
    DISC_TRACE("DBDiscoveryIterator::getNext");
    while (const auto candidate = nextCandidate()) {
        // A writer that has not written yet leaves the old record current. One that has written
        // gave the file another stamp.
        auto known = metadataCache().find(candidate->name, candidate->status);
        if (known && !known->isExpired()) {
            if (isShown(known->authorityType))
                return ListedRecord{std::move(known->subject),
                                    std::move(known->authority),
                                    known->authorityType,
                                    {}};
            continue;
        }
        AutoDereference<Discovery> discovery(
            getDiscoveryDBDatabase()->getDiscovery(candidate->name.c_str()));
        if (!discovery || !isShown(discovery->getAuthority()->getType()))
            continue;
        return ListedRecord{discovery->getSubject()->getSubject().utf8(),
                            discovery->getAuthority()->getName().utf8(),
                            discovery->getAuthority()->getType(), std::move(discovery)};
    }
    return std::nullopt;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
