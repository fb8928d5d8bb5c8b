// An explorer that finds out which kernel this host runs. The service pushes the answer every few
// hours, and pulls it when a client reads.

#include <sstream>
#include <string>

#include <sys/utsname.h>

#include <ExplorerPlugin.h>
#include <tlx/HostConfig.h>

namespace {

using namespace Veltrane::Quillmark::Tlx;
using namespace Veltrane::Quillmark::Tlx::DiscoverySvc;

constexpr const char* NAME = "Kernel";

/// Returns the collection: a document with one discovered item, which contains this explorer's
/// block.
std::string describeKernel(Explorer& explorer)
{
    utsname kernel = {};
    if (::uname(&kernel) != 0)
        return {};
    std::ostringstream out;
    XmlStr::xmlProlog(out, XmlStr::XE_UTF8);
    out << "<DiscoveredItems><DISCOVERED";
    XmlStr::appendAttribute(out, "Name", kernel.nodename);
    out << '>';
    explorer.appendExplorerDataStartTag(out, XmlStr::XE_UTF8);
    out << "<System>" << XmlStr(TlxString(kernel.sysname)) << "</System><Release>"
        << XmlStr(TlxString(kernel.release)) << "</Release><Machine>"
        << XmlStr(TlxString(kernel.machine)) << "</Machine>";
    Explorer::appendExplorerDataEndTag(out);
    out << "</DISCOVERED></DiscoveredItems>";
    return out.str();
}

class KernelPush : public virtual ExplorerPush
{
  public:
    const char* getExplorerName() const override { return NAME; }

    bool pushCollection(const Authority& authority, const Subject& subject,
                        const CollectionAttributes& attributes, AutoDereference<TLXRefCounted>&,
                        DiscoveryFactory* factory, DiscoveryResult& result) override
    {
        result = {DS_OPEN_FAILED, 0};
        auto* repository = dynamic_cast<DiscoveryRepository*>(factory);
        const std::string collection = describeKernel(*this);
        if (!repository || collection.empty())
            return false;
        AutoDereference<Discovery> discovery;
        repository->newDiscovery(discovery, DQ_DISCOVERY_DATA, subject, authority, attributes);
        if (!discovery)
            return false;
        result = discovery->open(OM_UPDATE, "");
        if (!isSuccess(result))
            return false;
        CollectionData* data = discovery->getCollectionData();
        if (!data->writeCollection(collection.size(), collection.data())) {
            result = {DS_OPEN_FAILED, 0};
            return false;
        }
        result = discovery->persist();
        return isSuccess(result);
    }
};

class KernelPull : public virtual ExplorerPull
{
  public:
    const char* getExplorerName() const override { return NAME; }

    // Several threads may call it at once: it keeps no state between calls.
    bool collectionRequested(DiscoveryQuery, const Authority&, const Subject&,
                             AutoDereference<TLXRefCounted>&, const char*,
                             CollectionData* data) override
    {
        const std::string collection = describeKernel(*this);
        return !collection.empty() && data->open(OM_UPDATE, "") &&
               data->writeCollection(collection.size(), collection.data());
    }
};

} // namespace

void RegisterExplorers(DiscoveryRepository* repository)
{
    // A subject and an authority name one record, so the pushed record needs a subject of its own.
    const std::string host = HostConfig::instance().localHostName();
    const Subject pushed(host + "/kernel");
    const AutoDereference<ExplorerPush> push(new KernelPush);
    repository->registerExplorer(&pushed, push.get(), 1u, nullptr);

    const Subject pulled(host + "/kernel-now");
    const AutoDereference<ExplorerPull> pull(new KernelPull);
    repository->registerExplorer(&pulled, pull.get(), 1u, nullptr, false);
}
