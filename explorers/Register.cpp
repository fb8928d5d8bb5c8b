// The entry points of the library.

#include <ExplorerPlugin.h>
#include <tlx/HostConfig.h>

#include "FileSystemData.h"
#include "FileSystemExplorers.h"
#include "FileSystemKeys.h"

using namespace Veltrane::Quillmark;
using namespace Veltrane::Quillmark::Tlx::DiscoverySvc;
using Veltrane::Quillmark::Tlx::AutoDereference;

namespace {
constexpr unsigned int PRIORITY_OF_OURS = 1; ///< low, so that a better plug-in can replace us
} // namespace

void RegisterExplorers(DiscoveryRepository* repository)
{
    const Tlx::HostConfig& config = Tlx::HostConfig::instance();
    const std::string host = config.localHostName();
    const Subject stored(host);
    const AutoDereference<ExplorerPush> push(new Explorers::FileSystemPush);
    repository->registerExplorer(&stored, push.get(), PRIORITY_OF_OURS, nullptr);

    // All hosts store it under the same subject, where readers look for it.
    const Subject filters(Explorers::FILE_SYSTEM_FILTERS_SUBJECT);
    const AutoDereference<ExplorerPush> filtersPush(new Explorers::FileSystemFiltersPush);
    repository->registerExplorer(&filters, filtersPush.get(), PRIORITY_OF_OURS, nullptr);

    const bool mayBePulled = config.getBoolean(Tlx::ConfigKey::FILESYSTEM_PULL).value_or(true);
    if (!mayBePulled)
        return;
    const Subject pulled(Explorers::pullSubject(host));
    const AutoDereference<ExplorerPull> pull(new Explorers::FileSystemPull);
    repository->registerExplorer(&pulled, pull.get(), PRIORITY_OF_OURS, nullptr, false);
}

void RegisterExplorerParsers(DiscoveryRepository* repository)
{
    const AutoDereference<ExplorerDataParser> parser(new Explorers::FileSystemParser);
    repository->registerExplorerParser(parser->getExplorerParserName(), parser.get());
}
