// The payload files of the store.

#include <fcntl.h>
#include <sys/stat.h>

#include "DirectorySync.h"
#include "DiscDB.h"
#include "DiscLog.h"
#include "TemporaryNumber.h"
#include "TemporaryRemoval.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../DiscDB";

/// The disk writes a large payload in parts of this size while the next ones arrive.
constexpr std::size_t WRITEBACK_BYTES = 1u << 20;

/// What a path names.
enum class Named
{
    MINE, ///< the open file; also if that cannot be found out
    NOTHING,
    ANOTHER
};

Named namedBy(const TlxPathname& path, int file)
{
    const auto there = statusAt(path);
    if (!there)
        return there.error() == std::errc::no_such_file_or_directory ? Named::NOTHING : Named::MINE;
    const auto mine = statusOf(file);
    const bool isMine = !mine || (mine->st_dev == there->st_dev && mine->st_ino == there->st_ino);
    return isMine ? Named::MINE : Named::ANOTHER;
}

} // namespace

DBCollectionData::DBCollectionData(const TlxPathname& path) : m_path(path) {}

DBCollectionData::~DBCollectionData()
{
    DISC_TRACE("DBCollectionData::~DBCollectionData");
    if (!m_file.isOpen())
        return;
    switch (m_mode) {
    case OM_UPDATE:
        cleanup();
        break;
    case OM_READ:
        break;
    default:
        TLX_SHOULD_NOT_GET_HERE();
    }
}

bool DBCollectionData::open(OpenMode mode, const char*)
{
    DISC_TRACE("DBCollectionData::open");
    if (m_file.isOpen() && m_mode == OM_UPDATE)
        cleanup();
    m_file.reset();
    m_mode = mode;
    m_spoilt = false;
    m_prepared = false;
    m_written = m_begun = 0;
    return mode == OM_UPDATE ? openTemporary() : openStored();
}

bool DBCollectionData::openTemporary()
{
    const TlxPathname directory = m_path.directory();
    m_cleanupLock.reset();
    m_cleanupLock = std::make_unique<CleanupLock>(directory.c_str(), CleanupLock::LM_SHARED);
    // Without the lock a clean-up could delete the new file.
    if (!m_cleanupLock->isLocked()) {
        m_cleanupLock.reset();
        return false;
    }
    m_finalPath = std::make_unique<TlxPathname>(m_path);
    m_number = TemporaryNumber::take(0);
    while (m_number) {
        const TlxPathname path =
            directory.withFileName(std::to_string(m_number->value()) + ".updating");
        // Compat(log-payload): log readers know "collecation", two lines for each attempt, and
        // "Last error" without a blank before the number.
        DISC_LOG(4, "Attempting collecation data file " << path);
        DISC_LOG(4, "Opening collection file: " << path);
        auto file = openFile(path, O_WRONLY | O_CREAT | O_EXCL, 0);
        if (file) {
            m_file = std::move(*file);
            m_path = path;
            return true;
        }
        DISC_NOTICE("Last error" << file.error().value());
        if (file.error() != std::errc::file_exists) {
            // Another number would not help against a full disk, or too many open files.
            DISC_LOG(1, "Unable to create " << path);
            DISC_LOG(1, "The cause: " << describeError(file.error()));
            break;
        }
        m_number = TemporaryNumber::take(m_number->value() + 1);
    }
    if (!m_number)
        DISC_LOG(1, "No temporary name is free: " << MAX_TEMPORARY_NAMES
                                                  << " payloads are being written or left over");
    m_number.reset();
    m_finalPath.reset();
    m_cleanupLock.reset();
    return false;
}

bool DBCollectionData::openStored()
{
    DISC_LOG(4, "Opening collection file: " << m_path);
    // O_NONBLOCK: if the name is a pipe, the open must not wait for its writer.
    auto file = openFile(m_path, O_RDONLY | O_NONBLOCK);
    if (file) {
        const auto status = statusOf(file->get());
        if (!status || !S_ISREG(status->st_mode))
            file = tl::unexpected(status ? systemError(EINVAL) : status.error());
    }
    if (!file) {
        DISC_WARN("Last error" << file.error().value());
        return false;
    }
    m_file = std::move(*file);
    return true;
}

std::size_t DBCollectionData::readCollection(std::size_t length, void* buffer) const
{
    DISC_TRACE("DBCollectionData::readCollection");
    if (!TLX_ASSERT_AS(m_file.isOpen(), "ACE_INVALID_HANDLE != m_handle"))
        return static_cast<std::size_t>(-1);
    const auto count = readOnce(m_file.get(), static_cast<char*>(buffer), length);
    if (count)
        return *count;
    DISC_LOG(1, "Unable to read " << m_path << ", error " << count.error().value());
    return static_cast<std::size_t>(-1);
}

bool DBCollectionData::writeCollection(std::size_t length, const void* buffer) const
{
    DISC_TRACE("DBCollectionData::writeCollection");
    if (!TLX_ASSERT_AS(m_file.isOpen(), "ACE_INVALID_HANDLE != m_handle"))
        return false;
    if (m_spoilt)
        return false; // what follows a lost part must not use the space that is free again
    m_prepared = false;
    const auto written = writeAll(m_file.get(), {static_cast<const char*>(buffer), length});
    if (written) {
        m_written += length;
        if (m_written - m_begun >= WRITEBACK_BYTES) {
            startWriteback(m_file.get(), m_begun, m_written - m_begun);
            m_begun = m_written;
        }
        return true;
    }
    DISC_LOG(1, "Unable to write " << m_path << ", error " << written.error().value());
    // The payload is lost, and its writer may keep it open for long. Free the disk space now.
    (void)truncateFile(m_file.get(), 0);
    m_spoilt = true;
    return false;
}

bool DBCollectionData::prepare()
{
    DISC_TRACE("DBCollectionData::persist"); // the name that log readers know
    if (m_spoilt) {
        cleanup();
        return false;
    }
    if (!m_file.isOpen())
        open(OM_UPDATE, "");
    if (!TLX_ASSERT_AS(m_file.isOpen(), "ACE_INVALID_HANDLE != m_handle"))
        return false;
    // A file that is open for reading is a stored payload. It must not move.
    if (!TLX_ASSERT(m_mode == OM_UPDATE))
        return false;
    if (!holdsTemporary()) {
        giveUp();
        return false;
    }
    if (m_prepared)
        return true;
    // Without this sync a power cut could leave the final name on a file without its bytes.
    const auto synced = syncFile(m_file.get());
    if (!synced) {
        DISC_LOG(1, "Unable to sync " << m_path << ", error " << synced.error().value());
        giveUp();
        return false;
    }
    m_prepared = true;
    return true;
}

/// Whether the temporary file still has its name. Somebody may have removed "Update.lock". Then
/// another process could lock a new one, and remove the temporary files of all writers.
bool DBCollectionData::holdsTemporary()
{
    if (!m_cleanupLock->isStillInPlace()) {
        DISC_WARN("Somebody has removed the lock file of " << m_path);
        // The old lock stays until there is a new one.
        auto lock =
            std::make_unique<CleanupLock>(m_path.directory().c_str(), CleanupLock::LM_SHARED);
        if (!lock->isLocked())
            return false;
        m_cleanupLock = std::move(lock);
    }
    // From here on no clean-up runs.
    if (namedBy(m_path, m_file.get()) == Named::MINE)
        return true;
    DISC_LOG(1, "Somebody has removed the temporary file " << m_path);
    return false;
}

bool DBCollectionData::persist(const TlxPathname& target)
{
    DISC_TRACE("DBCollectionData::persist");
    // It also looks once more whether the temporary file is there, just before the rename.
    if (!prepare())
        return false;
    m_spoilt = true; // until every step has succeeded
    // The rename locks the directory for all threads. While this descriptor is open, the file
    // system does not free the old payload's space meanwhile, but when the descriptor closes.
    const auto replaced = openFile(target, O_PATH | O_NOFOLLOW);
    if (!replaceStored(target,
                       replaced || replaced.error() != std::errc::no_such_file_or_directory)) {
        cleanup(); // a full disk needs the space at once
        return false;
    }
    (void)TLX_ASSERT_AS(m_file.close(), "0 == ACE_OS::close(m_handle)");
    m_finalPath.reset();
    m_number.reset();
    m_path = target;
    // The temporary file is gone, so a clean-up may run.
    m_cleanupLock.reset();
    // This makes the names of both files of the record durable.
    if (const auto named = syncStoreDirectory(target.directory()); !named) {
        DISC_LOG(1, "Unable to sync " << target.directory() << ", error " << named.error().value());
        return false;
    }
    m_spoilt = false;
    return true;
}

/// Renames the temporary payload. The rename also removes the stored payload, so at each moment the
/// record has one of the two.
/// @param replaces whether there is a stored payload.
bool DBCollectionData::replaceStored(const TlxPathname& target, bool replaces)
{
    // Compat(delete-then-rename): log readers expect two lines in each put, and a deletion that
    // fails in the first put.
    const auto renamed = renameFile(m_path, target);
    if (renamed && replaces)
        DISC_LOG(4, "Deleted file: " << target);
    else
        DISC_NOTICE("Unable to delete " << target);
    if (!renamed) {
        DISC_LOG(1, "Unable to rename " << m_path << " to " << target);
        DISC_LOG(1, "The cause: " << describeError(renamed.error()));
        return false;
    }
    DISC_NOTICE("Successfully renamed " << m_path << " to " << target);
    return true;
}

bool DBCollectionData::cleanup()
{
    DISC_TRACE("DBCollectionData::cleanup");
    if (m_file.isOpen()) {
        // A file that is open for reading is the stored payload.
        const bool isTemporary = m_mode == OM_UPDATE;
        const bool isMine = isTemporary && namedBy(m_path, m_file.get()) != Named::ANOTHER;
        (void)TLX_ASSERT_AS(m_file.close(), "0 == ACE_OS::close(m_handle)");
        if (isMine)
            removeTemporary(m_path, m_written);
        else if (isTemporary)
            DISC_WARN("Another process has made a new file " << m_path << ", so it stays");
    }
    if (m_finalPath)
        m_path = *m_finalPath;
    m_finalPath.reset();
    m_number.reset();
    m_prepared = false;
    m_cleanupLock.reset();
    return true;
}

void DBCollectionData::giveUp()
{
    m_spoilt = true;
    cleanup();
}

bool DBCollectionData::expire() const
{
    DISC_TRACE("DBCollectionData::expire");
    const auto removed = removeFile(m_path);
    if (removed) {
        // Compat(log-payload): log readers know "colllection".
        DISC_LOG(4, "Deleted colllection: " << m_path);
        return true;
    }
    if (removed.error() != std::errc::no_such_file_or_directory) {
        DISC_LOG(1, "Unable to delete " << m_path << ", error " << removed.error().value());
        return false;
    }
    DISC_NOTICE("Collection data did not exist " << m_path);
    return true;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
