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
constexpr unsigned LOG_ORIGINATOR = 400; // the service's
constexpr const char* MOUNT_TABLE = "/proc/self/mountinfo";
constexpr const char* LEFT_OUT = "pseudo";

/// Under the current operation.
void logFailure(const std::string& text)
{
    TLX_LOG(Tlx::LoggerFactory::instance().getLogger(LOG_ORIGINATOR), Tlx::LOG_LEVEL_FAILURE,
            Tlx::LogScope::current(), LOG_SOURCE, text);
}

/// What is mounted now. False, and logged, when the mount table cannot be read.
bool readFileSystems(std::vector<FileSystem>& fileSystems)
{
    std::string excluded = LEFT_OUT;
    Tlx::HostConfig::instance().getString(Tlx::ConfigKey::FILESYSTEM_EXCLUDE, excluded);
    std::string error;
    if (readMountTable(MOUNT_TABLE, Exclusion(excluded), fileSystems, error))
        return true;
    logFailure(error);
    return false;
}

/// Stores a document under what the timer has told.
bool store(DiscoveryRepository& repository, DiscoveryQuery query, const Authority& authority,
           const Subject& subject, const CollectionAttributes& attributes,
           const std::string& document, DiscoveryResult& result)
{
    Tlx::AutoDereference<Discovery> discovery;
    repository.newDiscovery(discovery, query, subject, authority, attributes);
    if (!discovery)
        return false;
    result = discovery->open(OM_UPDATE, "");
    if (!isSuccess(result))
        return false;
    if (!discovery->getCollectionData()->writeCollection(document.size(), document.data())) {
        result = {DS_OPEN_FAILED, 0};
        return false;
    }
    result = discovery->persist();
    return isSuccess(result);
}

/// The query of filter parameters. False, and logged in one line, when there is none in them.
bool readFilter(const char* text, Tlx::TlxQuery& filter)
{
    const FilterParameters parameters(text);
    // Parameters without a query are never written.
    if (parameters.queryString().empty()) {
        logFailure("The filter is no document of filter parameters with a query");
        return false;
    }
    if (parameters.setQuery(filter))
        return true;
    logFailure("The filter cannot be read: " + filter.mistake().toText());
    return false;
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
    std::vector<FileSystem> fileSystems;
    if (!repository || !readFileSystems(fileSystems))
        return false;
    std::ostringstream document;
    writeDocument(document, *this, fileSystems);
    return store(*repository, DQ_DISCOVERY_DATA, authority, subject, attributes, document.str(),
                 result);
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
    return store(*repository, DQ_FILTER_DATA, authority, subject, attributes, document.str(),
                 result);
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
    const Tlx::AutoDereference<Tlx::TlxQuery> filter(new Tlx::TlxQuery(0));
    std::vector<FileSystem> fileSystems;
    if ((*text && !readFilter(text, *filter)) || !readFileSystems(fileSystems))
        return false;
    const std::string host = authority.getName().utf8();
    std::erase_if(fileSystems, [&](const FileSystem& fileSystem) {
        return !filter->matches(FileSystemSource(host, fileSystem));
    });
    std::ostringstream out;
    writeDocument(out, *this, fileSystems);
    const std::string document = out.str();
    return data->open(OM_UPDATE, "") && data->writeCollection(document.size(), document.data());
}

} // namespace Veltrane::Quillmark::Explorers
