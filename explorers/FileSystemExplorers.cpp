#include "FileSystemExplorers.h"

#include <sstream>

#include <DiscoveryRepository.h>
#include <tlx/HostConfig.h>
#include <tlx/Log.h>

#include "FileSystemDocument.h"

namespace Veltrane::Quillmark::Explorers {

using namespace Tlx::DiscoverySvc;

namespace {

constexpr const char* LOG_SOURCE = "../FileSystemExplorers";
constexpr unsigned LOG_ORIGINATOR = 400; // the service's
constexpr const char* MOUNT_TABLE = "/proc/self/mountinfo";
constexpr const char* LEFT_OUT = "pseudo";

void logFailure(const char* operation, const std::string& text)
{
    TLX_LOG(Tlx::LoggerFactory::instance().getLogger(LOG_ORIGINATOR), Tlx::LOG_LEVEL_FAILURE,
            operation, LOG_SOURCE, text);
}

/// The document as of now. False, and logged, when the mount table cannot be read.
bool makeDocument(const char* operation, Explorer& explorer, std::string& document)
{
    std::string excluded = LEFT_OUT;
    Tlx::HostConfig::instance().getString(Tlx::ConfigKey::FILESYSTEM_EXCLUDE, excluded);
    std::vector<FileSystem> fileSystems;
    std::string error;
    if (!readMountTable(MOUNT_TABLE, Exclusion(excluded), fileSystems, error)) {
        logFailure(operation, error);
        return false;
    }
    std::ostringstream out;
    writeDocument(out, explorer, fileSystems);
    document = out.str();
    return true;
}

} // namespace

std::string pullSubject(const std::string& host)
{
    return host + "/now";
}

const char* FileSystemPush::getExplorerName() const
{
    return EXPLORER_NAME;
}

bool FileSystemPush::pushCollection(const Authority& authority, const Subject& subject,
                                    const CollectionAttributes& attributes,
                                    Tlx::AutoDereference<Tlx::TLXRefCounted>&,
                                    DiscoveryFactory* factory, DiscoveryResult& result)
{
    result = {DS_OPEN_FAILED, 0};
    auto* repository = dynamic_cast<DiscoveryRepository*>(factory);
    std::string document;
    if (!repository || !makeDocument("FileSystemPush::pushCollection", *this, document))
        return false;
    Tlx::AutoDereference<Discovery> discovery;
    repository->newDiscovery(discovery, DQ_DISCOVERY_DATA, subject, authority, attributes);
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

const char* FileSystemPull::getExplorerName() const
{
    return EXPLORER_NAME;
}

bool FileSystemPull::collectionRequested(DiscoveryQuery, const Authority&, const Subject&,
                                         Tlx::AutoDereference<Tlx::TLXRefCounted>&, const char*,
                                         CollectionData* data)
{
    std::string document;
    return makeDocument("FileSystemPull::collectionRequested", *this, document) &&
           data->open(OM_UPDATE, "") && data->writeCollection(document.size(), document.data());
}

} // namespace Veltrane::Quillmark::Explorers
