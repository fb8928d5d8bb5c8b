// Serves a Disk as a file in a FUSE mount, for a loop device:
//
//   soak_disk MOUNT SAFE CURRENT
//
// The file is MOUNT/disk. The kernel's loop driver turns a flush of the device into an fsync of the
// file. The program ends when MOUNT is unmounted. It obeys lines on standard input, and answers
// each with one line:
//
//   cut REQUESTS WRITES SECONDS
//       lets REQUESTS more writes and flushes pass. Then it stops as soon as WRITES writes are
//       unflushed, at the latest SECONDS after the order. Answers "cut WRITES SECTORS", what is
//       unflushed
//   image KEPT SEED PATH
//       after a cut: makes a file with what the disk may contain. KEPT is none, all, writes or
//       sectors: what it keeps of the unflushed writes. Answers "image SECTORS", how many it kept
//   thaw
//       goes on. Answers "thawed"

#define FUSE_USE_VERSION 31

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include <fuse.h>
#include <sys/stat.h>

#include "Disk.h"

namespace {

using namespace Veltrane::Quillmark::Soak;

constexpr const char* NAME = "/disk";
/// Seconds. The kernel may keep names and attributes, because they never change.
constexpr double FOREVER = 86400;

/// A disk that stops at the cut: it then answers no request until it goes on.
class CutDisk
{
  public:
    CutDisk(const std::string& safe, const std::string& current) : m_disk(safe, current) {}

    std::size_t size() const { return m_disk.size(); }

    std::size_t read(char* buffer, std::size_t length, std::size_t offset)
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return !m_stopped; });
        return m_disk.read(buffer, length, offset);
    }

    /// A write or a flush.
    template <class Function>
    void change(const Function& function)
    {
        std::unique_lock lock(m_mutex);
        if (m_left > 0)
            --m_left;
        else if (m_isArmed && m_disk.unflushedWrites() >= m_wanted)
            stop();
        m_changed.wait(lock, [this] { return !m_stopped; });
        function(m_disk);
    }

    std::string obey(const std::string& line)
    {
        std::istringstream words(line);
        std::string word;
        words >> word;
        std::unique_lock lock(m_mutex);
        if (word == "cut") {
            double seconds = 0;
            words >> m_left >> m_wanted >> seconds;
            m_isArmed = true;
            m_changed.wait_for(lock, std::chrono::duration<double>(seconds),
                               [this] { return m_stopped; });
            stop();
            return "cut " + std::to_string(m_disk.unflushedWrites()) + " " +
                   std::to_string(m_disk.unflushedSectors());
        }
        if (word == "image" && m_stopped) {
            std::string kept;
            std::uint64_t seed = 0;
            std::string path;
            words >> kept >> seed >> std::ws;
            std::getline(words, path);
            static const std::map<std::string, Kept> KINDS = {{"none", Kept::NONE},
                                                              {"all", Kept::ALL},
                                                              {"writes", Kept::WRITES},
                                                              {"sectors", Kept::SECTORS}};
            return "image " + std::to_string(m_disk.image(KINDS.at(kept), seed, path));
        }
        if (word == "thaw") {
            m_stopped = false;
            m_changed.notify_all();
            return "thawed";
        }
        throw std::runtime_error("cannot obey \"" + line + "\"");
    }

  private:
    void stop()
    {
        m_stopped = true;
        m_isArmed = false;
        m_left = 0;
        m_changed.notify_all();
    }

    std::mutex m_mutex; ///< guards all members
    std::condition_variable m_changed;
    Disk m_disk;
    bool m_isArmed = false;   ///< a cut has been ordered
    unsigned long m_left = 0; ///< requests that pass before
    std::size_t m_wanted = 0; ///< unflushed writes at the cut
    bool m_stopped = false;
};

CutDisk& disk()
{
    return *static_cast<CutDisk*>(::fuse_get_context()->private_data);
}

/// The result of a request: a number, or an error.
template <class Function>
int answered(const Function& function)
{
    try {
        return function();
    } catch (const std::system_error& e) {
        std::fprintf(stderr, "soak_disk: %s\n", e.what());
        return -e.code().value();
    }
}

int getAttributes(const char* path, struct stat* status, fuse_file_info*)
{
    *status = {};
    status->st_nlink = 1;
    if (std::strcmp(path, "/") == 0) {
        status->st_mode = S_IFDIR | 0700;
        return 0;
    }
    if (std::strcmp(path, NAME) != 0)
        return -ENOENT;
    status->st_mode = S_IFREG | 0600;
    status->st_size = static_cast<off_t>(disk().size());
    return 0;
}

int openFile(const char* path, fuse_file_info*)
{
    return std::strcmp(path, NAME) == 0 ? 0 : -ENOENT;
}

int readFile(const char*, char* buffer, std::size_t length, off_t offset, fuse_file_info*)
{
    return answered([&] {
        return static_cast<int>(disk().read(buffer, length, static_cast<std::size_t>(offset)));
    });
}

int writeFile(const char*, const char* bytes, std::size_t length, off_t offset, fuse_file_info*)
{
    return answered([&] {
        disk().change([&](Disk& d) { d.write(bytes, length, static_cast<std::size_t>(offset)); });
        return static_cast<int>(length);
    });
}

int syncFile(const char*, int, fuse_file_info*)
{
    return answered([] {
        disk().change([](Disk& d) { d.flush(); });
        return 0;
    });
}

void* start(fuse_conn_info*, fuse_config* settings)
{
    settings->attr_timeout = FOREVER;
    settings->entry_timeout = FOREVER;
    return ::fuse_get_context()->private_data;
}

void obeyAll(CutDisk& disk)
{
    std::string line;
    while (std::getline(std::cin, line))
        try {
            std::cout << disk.obey(line) << std::endl;
        } catch (const std::exception& e) {
            std::cout << "failed: " << e.what() << std::endl;
        }
}

int serve(const char* program, const char* mount, CutDisk& disk)
{
    fuse_operations operations = {};
    operations.getattr = getAttributes;
    operations.open = openFile;
    operations.read = readFile;
    operations.write = writeFile;
    operations.fsync = syncFile;
    operations.init = start;
    std::string name = program;
    char* arguments[] = {name.data(), nullptr};
    fuse_args args = FUSE_ARGS_INIT(1, arguments);
    fuse* const session = ::fuse_new(&args, &operations, sizeof operations, &disk);
    if (!session || ::fuse_mount(session, mount) != 0) {
        std::fprintf(stderr, "soak_disk: cannot mount %s\n", mount);
        return 1;
    }
    std::cout << "mounted" << std::endl;
    std::thread(obeyAll, std::ref(disk)).detach();
    // One thread, so the disk gets the requests in one order.
    const int result = ::fuse_loop(session);
    ::fuse_unmount(session);
    std::_Exit(result == 0 ? 0 : 1); // the other thread may wait for a line
}

} // namespace

int main(int count, char** arguments)
{
    if (count != 4) {
        std::fprintf(stderr, "usage: soak_disk MOUNT SAFE CURRENT\n");
        return 2;
    }
    try {
        CutDisk disk(arguments[2], arguments[3]);
        return serve(arguments[0], arguments[1], disk);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "soak_disk: %s\n", e.what());
        return 1;
    }
}
