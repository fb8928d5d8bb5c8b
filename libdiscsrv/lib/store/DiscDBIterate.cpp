// Finds the records that match a query: by exact names, or by a walk over the directory.

#include <array>
#include <climits>
#include <utility>

#include <tlx/Wildcard.h>

#include "DirectoryNames.h"
#include "DiscDB.h"
#include "DiscLog.h"
#include "MetadataCache.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DiscDB";

/// The longest pattern. A file name has at most 255 bytes, so a longer pattern is a mistake or an
/// attack: every file name is compared with the whole pattern.
constexpr std::size_t MAX_PATTERN_BYTES = 1024;

/// An iterator begins with the last one.
constexpr std::array ALL_TYPES{AT_REMOTEPULL, AT_EXTSRC, AT_QMKCLIENT, AT_QMKSERVER, AT_ANYANDALL};

std::string fileNameOf(AuthorityType type, const std::string& authority, const std::string& subject)
{
    return std::to_string(static_cast<int>(type)) + ' ' + authority + ' ' + subject + ".xml";
}

bool isWildcard(char c)
{
    return c == '*' || c == '?';
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
    const std::string& name; ///< until the next candidate
    /// Nothing for an exact name, which may name no file, and for a file without a status.
    std::optional<struct stat> status;
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
    m_begun = std::chrono::steady_clock::now();
    const std::string anyType = "* " + m_authority + ' ' + m_subject + ".xml";
    const std::size_t length =
        m_type == AT_ANYANDALL ? anyType.size() : fileNameOf(m_type, m_authority, m_subject).size();
    if (length > MAX_PATTERN_BYTES) {
        DISC_WARN("A pattern may have " << MAX_PATTERN_BYTES << " bytes, this one has " << length
                                        << " and matches nothing");
        return;
    }
    m_isExact = isExact(m_authority) && isExact(m_subject);
    if (m_type == AT_ANYANDALL && !m_isExact && isWildcard(m_authority[0])) {
        m_patterns.push_back(anyType);
        return;
    }
    // With a type at its beginning, a pattern matches only a part of the sorted names.
    for (const AuthorityType type : ALL_TYPES)
        if (m_type == AT_ANYANDALL || m_type == type)
            m_patterns.push_back(fileNameOf(type, m_authority, m_subject));
}

std::optional<DBDiscoveryIterator::Candidate> DBDiscoveryIterator::nextCandidate()
{
    if (!m_begun)
        begin();
    for (; !m_patterns.empty(); m_patterns.pop_back(), m_last.clear())
        if (auto candidate = m_isExact ? lookUp(m_patterns.back()) : nextMatch(m_patterns.back()))
            return candidate;
    return std::nullopt;
}

std::optional<DBDiscoveryIterator::Candidate> DBDiscoveryIterator::lookUp(const std::string& name)
{
    // No file has a longer name, and an open of one would be logged as a failure.
    if (name.size() > NAME_MAX || std::exchange(m_last, name) == name)
        return std::nullopt;
    return Candidate{m_last, std::nullopt};
}

std::optional<DBDiscoveryIterator::Candidate>
DBDiscoveryIterator::nextMatch(const std::string& pattern)
{
    // An iterator that nobody uses any more must not keep the names alive. When another walk has
    // replaced them, the last name is the position in the new ones.
    auto found = m_names.lock();
    const bool isNew = !found;
    if (isNew)
        found = namesIn(m_path, *m_begun);
    if (!found)
        return std::nullopt;
    m_names = found;
    if (!found->isComplete)
        m_brokenNames = found;
    const NameList& names = found->names;
    const std::string_view prefix =
        std::string_view(pattern).substr(0, pattern.find_first_of("*?"));
    if (m_last.empty())
        m_place = names.lowerBound(prefix);
    else if (isNew)
        m_place = names.upperBound(m_last);
    for (; m_place < names.size() && names[m_place].starts_with(prefix); ++m_place) {
        const std::string_view name = names[m_place]; // a zero byte follows it
        if (wildcardcmp(pattern.c_str(), name.data(), 0) != 0)
            continue;
        const auto status = statusIn(found->descriptor(), name.data());
        if (!status && status.error() == std::errc::no_such_file_or_directory)
            continue; // removed since the walk
        ++m_place;
        m_last = name;
        return Candidate{m_last, status ? std::optional(*status) : std::nullopt};
    }
    return std::nullopt;
}

// Compat(remote-pull-hidden): peers do not expect these records unless they ask for their type.
bool DBDiscoveryIterator::isShown(AuthorityType type) const
{
    return type != AT_REMOTEPULL || m_type == AT_REMOTEPULL;
}

AutoDereference<Discovery> DBDiscoveryIterator::openRecord(const Candidate& candidate)
{
    DiscoveryDBCreator::Lookup lookup{.wait = m_wait, .logsMissing = false};
    AutoDereference<Discovery> record(
        getDiscoveryDBDatabase()->openStored(candidate.name.c_str(), lookup));
    if (lookup.hasTimedOut)
        m_wait = LockWait::TRY;
    return record;
}

Discovery* DBDiscoveryIterator::getNext()
{
    DISC_TRACE("DBDiscoveryIterator::getNext");
    while (const auto candidate = nextCandidate()) {
        AutoDereference<Discovery> discovery = openRecord(*candidate);
        if (discovery && isShown(discovery->getAuthority()->getType()))
            return discovery.release();
    }
    return nullptr;
}

std::optional<ListedRecord> DBDiscoveryIterator::listNext()
{
    DISC_TRACE("DBDiscoveryIterator::getNext"); // the name that log readers know
    while (const auto candidate = nextCandidate()) {
        // A writer that has not written yet leaves the old record current. One that has written
        // gave the file another stamp.
        auto known = candidate->status ? metadataCache().find(candidate->name, *candidate->status)
                                       : std::nullopt;
        if (known && !known->isExpired()) {
            if (isShown(known->authorityType))
                return ListedRecord{std::move(known->subject),
                                    std::move(known->authority),
                                    known->authorityType,
                                    {}};
            continue;
        }
        AutoDereference<Discovery> discovery = openRecord(*candidate);
        if (!discovery || !isShown(discovery->getAuthority()->getType()))
            continue;
        return ListedRecord{discovery->getSubject()->getSubject().utf8(),
                            discovery->getAuthority()->getName().utf8(),
                            discovery->getAuthority()->getType(), std::move(discovery)};
    }
    return std::nullopt;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
