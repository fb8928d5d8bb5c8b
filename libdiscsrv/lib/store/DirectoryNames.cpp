#include "DirectoryNames.h"

#include <condition_variable>
#include <exception>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>

#include <tlx/File.h>

#include "FileStamp.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

using Names = std::shared_ptr<const DirectoryNames>;
using Time = DirectoryNames::Time;

/// The state of the directory before the walk, if every later change gives it another stamp.
std::optional<FileStamp> settledStampOf(const TlxPathname& directory)
{
    const auto status = statusAt(directory);
    if (!status)
        return std::nullopt;
    const FileStamp stamp(*status);
    return stamp.isSettledNow() ? std::optional(stamp) : std::nullopt;
}

Names walk(const TlxPathname& directory)
{
    auto found = std::make_shared<DirectoryNames>(directory);
    if (!found->stream.isOpen())
        return nullptr;
    while (const char* const each = found->stream.next())
        if (const std::string_view name = each; name.ends_with(".xml"))
            found->names.add(name);
    found->isComplete = !found->stream.isBroken();
    found->names.sort();
    return found;
}

/// The last walk, and the walk that runs now.
struct LastWalk
{
    std::mutex mutex;
    std::condition_variable ended;
    bool isWalking = false;
    Names names;
    std::optional<FileStamp> stamp; ///< of the directory before the walk; nothing if not settled
};

LastWalk& lastWalk()
{
    // Never destroyed, because destructors of static objects may still use it.
    static auto* const theWalk = new LastWalk;
    return *theWalk;
}

} // namespace

Names namesIn(const TlxPathname& directory, Time since)
{
    LastWalk& last = lastWalk();
    std::unique_lock guard(last.mutex);
    for (;;) {
        if (last.names && last.names->path == directory) {
            const auto status = statusAt(directory);
            if (last.names->begun >= since || (status && last.stamp == FileStamp(*status)))
                return last.names;
        }
        if (!last.isWalking)
            break;
        last.ended.wait(guard);
    }
    last.isWalking = true;
    guard.unlock();
    std::optional<FileStamp> stamp;
    Names found;
    try {
        stamp = settledStampOf(directory);
        found = walk(directory);
    } catch (const std::exception&) { // no memory: a log line might throw as well
        found = nullptr;
    }
    guard.lock();
    last.isWalking = false;
    // Names that are not complete are for this listing only. The next one walks again.
    Names old;
    if (found && found->isComplete) {
        old = std::exchange(last.names, found); // destroyed without the mutex
        last.stamp = stamp;
    }
    last.ended.notify_all();
    guard.unlock();
    return found;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
