// The payload files of the store, and the lock on "Update.lock".

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "DiscDB.h"
#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../DiscDB";
} // namespace

CleanupLock::CleanupLock(const char* dir, LockMode mode)
{
    DISC_TRACE("CleanupLock::CleanupLock");
    const TlxPathname path = TlxPathname(dir).withFileName("Update.lock");
    m_fileLock = FileLock::open(path.text(), O_CREAT | O_RDWR, 0);
    if (!m_fileLock) {
        DISC_LOG(1, "Unable to open " << path);
        return;
    }
    const int locked =
        mode == LM_EXCLUSIVE ? m_fileLock->tryacquire_write() : m_fileLock->acquire_read();
    if (locked != 0) {
        DISC_LOG(1, "Unable to lock " << path);
        return;
    }
    m_locked = true;
}

CleanupLock::~CleanupLock() = default;

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
    for (unsigned attempt = 0; attempt < MAX_TEMPORARY_NAMES; ++attempt) {
        const TlxPathname path = directory.withFileName(std::to_string(attempt) + ".updating");
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
        DISC_LOG(1, "Last error" << file.error().value());
    }
    m_finalPath.reset();
    m_cleanupLock.reset();
    return false;
}

bool DBCollectionData::openStored()
{
    // A writer deletes the old payload and then renames the new one. The gate keeps this process's
    // writers out of that gap, and our lock keeps the writers of other processes out.
    std::unique_ptr<FileGate> gate;
    if (m_recordLock)
        gate = std::make_unique<FileGate>(*m_recordLock);
    DISC_LOG(4, "Opening collection file: " << m_path);
    // O_NONBLOCK: if the name is a pipe, the open must not wait for its writer.
    auto file = openFile(m_path, O_RDONLY | O_NONBLOCK);
    struct stat status = {};
    if (file && (::fstat(file->get(), &status) != 0 || !S_ISREG(status.st_mode)))
        file = tl::unexpected(systemError(EINVAL));
    if (!file) {
        DISC_LOG(1, "Last error" << file.error().value());
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
    const ssize_t count = ::read(m_file.get(), buffer, length);
    if (count < 0)
        DISC_LOG(1, "Unable to read " << m_path << ", error " << errno);
    return static_cast<std::size_t>(count);
}

bool DBCollectionData::writeCollection(std::size_t length, const void* buffer) const
{
    DISC_TRACE("DBCollectionData::writeCollection");
    if (!TLX_ASSERT_AS(m_file.isOpen(), "ACE_INVALID_HANDLE != m_handle"))
        return false;
    const auto written = writeAll(m_file.get(), {static_cast<const char*>(buffer), length});
    if (written)
        return true;
    DISC_LOG(1, "Unable to write " << m_path << ", error " << written.error().value());
    // The payload is lost, and its writer may keep it open for long. Free the disk space now.
    (void)!::ftruncate(m_file.get(), 0);
    m_spoilt = true;
    return false;
}

bool DBCollectionData::persist(const TlxPathname& target)
{
    DISC_TRACE("DBCollectionData::persist");
    if (m_spoilt) {
        cleanup(); // deletes the file while m_cleanupLock still protects it
        return false;
    }
    if (!m_file.isOpen())
        open(OM_UPDATE, "");
    const std::unique_ptr<CleanupLock> cleanupLock = std::move(m_cleanupLock);
    if (!TLX_ASSERT_AS(m_file.isOpen(), "ACE_INVALID_HANDLE != m_handle"))
        return false;
    // A file that is open for reading is a stored payload. It must not move.
    if (!TLX_ASSERT(m_mode == OM_UPDATE))
        return false;
    m_spoilt = true; // until every step has succeeded
    // Without this sync a power cut could leave the final name on a file without its bytes.
    const bool synced = ::fsync(m_file.get()) == 0;
    if (!synced)
        DISC_LOG(1, "Unable to sync " << m_path << ", error " << errno);
    (void)TLX_ASSERT_AS(m_file.close(), "0 == ACE_OS::close(m_handle)");
    if (!synced)
        return false;

    // Compat(delete-then-rename): log readers expect both lines in each put, and a deletion that
    // fails in the first put.
    if (::unlink(target.c_str()) == 0)
        DISC_LOG(4, "Deleted file: " << target);
    else
        DISC_LOG(1, "Unable to delete " << target);
    if (::rename(m_path.c_str(), target.c_str()) != 0) {
        DISC_LOG(1, "Unable to rename " << m_path << " to " << target);
        return false;
    }
    DISC_LOG(1, "Successfully renamed " << m_path << " to " << target);
    m_finalPath.reset();
    m_path = target;
    // This makes the names of both files of the record durable.
    if (const auto named = syncDirectory(target.directory()); !named) {
        DISC_LOG(1, "Unable to sync " << target.directory() << ", error " << named.error().value());
        return false;
    }
    m_spoilt = false;
    return true;
}

bool DBCollectionData::cleanup()
{
    DISC_TRACE("DBCollectionData::cleanup");
    if (m_file.isOpen()) {
        (void)TLX_ASSERT_AS(m_file.close(), "0 == ACE_OS::close(m_handle)");
        // A file that is open for reading is the stored payload.
        if (m_mode == OM_UPDATE) {
            if (::unlink(m_path.c_str()) == 0)
                DISC_LOG(1, "Deleted file: " << m_path);
            else
                DISC_LOG(1, "Unable to delete " << m_path);
        }
    }
    if (m_finalPath)
        m_path = *m_finalPath;
    m_finalPath.reset();
    m_cleanupLock.reset();
    return true;
}

bool DBCollectionData::expire() const
{
    DISC_TRACE("DBCollectionData::expire");
    if (::unlink(m_path.c_str()) == 0) {
        // Compat(log-payload): log readers know "colllection".
        DISC_LOG(4, "Deleted colllection: " << m_path);
        return true;
    }
    if (errno != ENOENT) {
        DISC_LOG(1, "Unable to delete " << m_path << ", error " << errno);
        return false;
    }
    DISC_LOG(1, "Collection data did not exist " << m_path);
    return true;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
