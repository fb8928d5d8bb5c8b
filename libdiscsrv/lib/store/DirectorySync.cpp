#include "DirectorySync.h"

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <set>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

/// One sync and its result, shared by the threads that it serves.
struct Batch
{
    bool done = false;
    FileResult<> result;
};

/// The syncs of one directory.
struct Queue
{
    bool isSyncing = false;
    std::shared_ptr<Batch> next; ///< has not begun; null if nobody waits for it
};

struct Queues
{
    std::mutex mutex;
    std::condition_variable changed;
    std::map<std::string, Queue> byDirectory; ///< only directories with a sync under way
    std::set<std::string> named;              ///< directories whose own names are durable
};

Queues& queues()
{
    // Never destroyed, because destructors of static objects may still use it.
    static auto* const theQueues = new Queues;
    return *theQueues;
}

/// Makes the names of a new store durable: "db" and "discovery". The process that made the
/// directories may have ended before it synced them, or its sync may have failed.
FileResult<> syncNamesOf(const TlxPathname& directory)
{
    if (auto synced = syncDirectory(directory.directory()); !synced)
        return synced;
    return syncDirectory(directory.directory().directory());
}

} // namespace

FileResult<> syncStoreDirectory(const TlxPathname& directory)
{
    Queues& all = queues();
    std::unique_lock guard(all.mutex);
    Queue& queue = all.byDirectory[directory.text()];
    if (!queue.next)
        queue.next = std::make_shared<Batch>();
    const std::shared_ptr<Batch> mine = queue.next;
    all.changed.wait(guard, [&] { return mine->done || !queue.isSyncing; });
    if (mine->done)
        return mine->result;
    // This thread syncs for its batch.
    queue.isSyncing = true;
    queue.next = nullptr;
    const bool isNamed = all.named.contains(directory.text());
    guard.unlock();
    FileResult<> result;
    if (!isNamed)
        result = syncNamesOf(directory);
    if (result)
        result = syncDirectory(directory);
    guard.lock();
    if (result)
        all.named.insert(directory.text());
    mine->result = result;
    mine->done = true;
    queue.isSyncing = false;
    if (!queue.next)
        all.byDirectory.erase(directory.text());
    all.changed.notify_all();
    return result;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
