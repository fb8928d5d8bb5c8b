#include "FileSystemExplorers.h"

#include <sstream>

#include <DiscoveryRepository.h>
#include <FilterParameters.h>
#include <tlx/HostConfig.h>
#include <tlx/Log.h>

#include "FileSystemDocument.h"
#include "FileSystemKeys.h"

namespace Veltrane::Quillmark::Explorers {

using namespace Tlx::DiscoverySvc;

namespace {

constexpr const char* LOG_SOURCE = "../FileSystemExplorers";
constexpr unsigned LOG_ORIGINATOR = 400; ///< the service's number
constexpr const char* MOUNT_TABLE = "/proc/self/mountinfo";
constexpr const char* LEFT_OUT = "pseudo";

/// Logs a failure under the current operation.
void logFailure(const std::string& text, Tlx::LogSeverity severity = Tlx::LogSeverity::Error)
{
    TLX_LOG_AS(Tlx::LoggerFactory::instance().getLogger(LOG_ORIGINATOR), Tlx::LOG_LEVEL_FAILURE,
               severity, Tlx::LogScope::current(), LOG_SOURCE, text);
}

/// Returns the mounted file systems that the configuration does not exclude, or a text for the log.
tl::expected<std::vector<FileSystem>, std::string> readFileSystems()
{
    const auto excluded = Tlx::HostConfig::instance().getString(Tlx::ConfigKey::FILESYSTEM_EXCLUDE);
    return readMountTable(MOUNT_TABLE, Exclusion(excluded.value_or(LEFT_OUT)));
}

/// Stores a document in a new discovery with the arguments of a push.
[[nodiscard]] DiscoveryResult store(DiscoveryRepository& repository, DiscoveryQuery query,
                                    const Authority& authority, const Subject& subject,
                                    const CollectionAttributes& attributes,
                                    const std::string& document)
{
    Tlx::AutoDereference<Discovery> discovery;
    repository.newDiscovery(discovery, query, subject, authority, attributes);
    if (!discovery)
        return {DS_OPEN_FAILED, 0};
    const DiscoveryResult result = discovery->open(OM_UPDATE, "");
    if (!isSuccess(result))
        return result;
    if (!discovery->getCollectionData()->writeCollection(document.size(), document.data()))
        return {DS_OPEN_FAILED, 0};
    return discovery->persist();
}

/// Reads the query of filter parameters. An empty text gives a query that matches everything. The
/// error is a text for the log.
[[nodiscard]] tl::expected<Tlx::AutoDereference<Tlx::TlxQuery>, std::string>
readFilter(const char* text)
{
    Tlx::AutoDereference<Tlx::TlxQuery> filter(new Tlx::TlxQuery(0));
    if (!*text)
        return filter;
    const FilterParameters parameters(text);
    // Clients never write parameters without a query.
    if (parameters.queryString().empty())
        return tl::unexpected(
            std::string("The filter is no document of filter parameters with a query"));
    if (!parameters.setQuery(*filter))
        return tl::unexpected("The filter cannot be read: " + filter->mistake().toText());
    return filter;
}

} // namespace

std::string pullSubject(const std::string& host)
{
    return host + "/now";
}

const char* FileSystemPush::getExplorerName() const
{
    return FILE_SYSTEMS_EXPLORER;
}

bool FileSystemPush::pushCollection(const Authority& authority, const Subject& subject,
                                    const CollectionAttributes& attributes,
                                    Tlx::AutoDereference<Tlx::TLXRefCounted>&,
                                    DiscoveryFactory* factory, DiscoveryResult& result)
{
    const Tlx::LogScope scope("FileSystemPush::pushCollection");
    result = {DS_OPEN_FAILED, 0};
    auto* repository = dynamic_cast<DiscoveryRepository*>(factory);
    if (!repository)
        return false;
    const auto fileSystems = readFileSystems();
    if (!fileSystems) {
        logFailure(fileSystems.error());
        return false;
    }
    std::ostringstream document;
    writeDocument(document, *this, *fileSystems);
    result = store(*repository, DQ_DISCOVERY_DATA, authority, subject, attributes, document.str());
    return isSuccess(result);
}

const char* FileSystemFiltersPush::getExplorerName() const
{
    return "FileSystemFilters";
}

bool FileSystemFiltersPush::pushCollection(const Authority& authority, const Subject& subject,
                                           const CollectionAttributes& attributes,
                                           Tlx::AutoDereference<Tlx::TLXRefCounted>&,
                                           DiscoveryFactory* factory, DiscoveryResult& result)
{
    result = {DS_OPEN_FAILED, 0};
    auto* repository = dynamic_cast<DiscoveryRepository*>(factory);
    if (!repository)
        return false;
    std::ostringstream document;
    writeFilterDocument(document);
    result = store(*repository, DQ_FILTER_DATA, authority, subject, attributes, document.str());
    return isSuccess(result);
}

const char* FileSystemPull::getExplorerName() const
{
    return FILE_SYSTEMS_EXPLORER;
}

bool FileSystemPull::collectionRequested(DiscoveryQuery, const Authority& authority, const Subject&,
                                         Tlx::AutoDereference<Tlx::TLXRefCounted>&,
                                         const char* text, CollectionData* data)
{
    const Tlx::LogScope scope("FileSystemPull::collectionRequested");
    const auto filter = readFilter(text);
    if (!filter) {
        logFailure(filter.error(), Tlx::LogSeverity::Warning);
        return false;
    }
    auto fileSystems = readFileSystems();
    if (!fileSystems) {
        logFailure(fileSystems.error());
        return false;
    }
    const std::string host = authority.getName().utf8();
    std::erase_if(*fileSystems, [&](const FileSystem& fileSystem) {
        return !(*filter)->matches(FileSystemSource(host, fileSystem));
    });
    std::ostringstream out;
    writeDocument(out, *this, *fileSystems);
    const std::string document = out.str();
    return data->open(OM_UPDATE, "") && data->writeCollection(document.size(), document.data());
}

} // namespace Veltrane::Quillmark::Explorers
