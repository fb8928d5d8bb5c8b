// Explorers that sleep in each call: two seconds, or the number in QM_SLEEPER_SECONDS.

#include <chrono>
#include <cstdlib>
#include <thread>

#include <ExplorerPlugin.h>
#include <tlx/HostConfig.h>

namespace {

using namespace Veltrane::Quillmark::Tlx;
using namespace Veltrane::Quillmark::Tlx::DiscoverySvc;

void sleep()
{
    const char* const seconds = std::getenv("QM_SLEEPER_SECONDS");
    std::this_thread::sleep_for(std::chrono::seconds(seconds ? std::atoi(seconds) : 2));
}

struct SleepingPush : virtual ExplorerPush
{
    const char* getExplorerName() const override { return "Sleeper"; }
    bool pushCollection(const Authority&, const Subject&, const CollectionAttributes&,
                        AutoDereference<TLXRefCounted>&, DiscoveryFactory*,
                        DiscoveryResult&) override
    {
        sleep();
        return true;
    }
};

struct SleepingPull : virtual ExplorerPull
{
    const char* getExplorerName() const override { return "Sleeper"; }
    bool collectionRequested(DiscoveryQuery, const Authority&, const Subject&,
                             AutoDereference<TLXRefCounted>&, const char*,
                             CollectionData* data) override
    {
        sleep();
        return data->open(OM_UPDATE, "") && data->writeCollection(1, "x");
    }
};

} // namespace

void RegisterExplorers(DiscoveryRepository* repository)
{
    const std::string host = HostConfig::instance().localHostName();
    const Subject pushed(host);
    const AutoDereference<ExplorerPush> push(new SleepingPush);
    repository->registerExplorer(&pushed, push.get(), 1u, nullptr);
    const Subject pulled(host + "/sleep");
    const AutoDereference<ExplorerPull> pull(new SleepingPull);
    repository->registerExplorer(&pulled, pull.get(), 1u, nullptr, false);
}
