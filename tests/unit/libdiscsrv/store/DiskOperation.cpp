#include "DiskOperation.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string_view>

#include <sys/mman.h>

namespace QmTest {

std::string DiskOperation::text() const
{
    static constexpr std::array NAMES{"create", "mkdir", "write",  "fallocate", "ftruncate",
                                      "sync",   "sync",  "rename", "unlink",    "note"};
    const auto slash = path.rfind('/');
    return std::string(NAMES[kind]) + ' ' +
           (kind == NOTE || slash == path.npos ? path : path.substr(slash + 1));
}

struct DiskJournal::Memory
{
    static constexpr std::size_t BYTES = 4u << 20;

    std::uint32_t count;
    std::size_t used;
    char bytes[BYTES];

    void put(const void* from, std::size_t size)
    {
        if (size > BYTES - used)
            std::abort();
        std::memcpy(bytes + used, from, size);
        used += size;
    }
    void putText(std::string_view text)
    {
        const std::size_t size = text.size();
        put(&size, sizeof size);
        put(text.data(), size);
    }
    void get(std::size_t& position, void* to, std::size_t size) const
    {
        std::memcpy(to, bytes + position, size);
        position += size;
    }
    std::string getText(std::size_t& position) const
    {
        std::size_t size = 0;
        get(position, &size, sizeof size);
        const std::string text(bytes + position, size);
        position += size;
        return text;
    }
};

DiskJournal::DiskJournal()
    : m_memory(static_cast<Memory*>(::mmap(nullptr, sizeof(Memory), PROT_READ | PROT_WRITE,
                                           MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
{
    if (m_memory == MAP_FAILED)
        throw std::runtime_error("no memory for a journal");
    clear();
}

DiskJournal::~DiskJournal()
{
    ::munmap(m_memory, sizeof(Memory));
}

void DiskJournal::clear()
{
    m_memory->count = 0;
    m_memory->used = 0;
}

void DiskJournal::append(const DiskOperation& operation)
{
    m_memory->put(&operation.kind, sizeof operation.kind);
    m_memory->put(&operation.file, sizeof operation.file);
    m_memory->put(&operation.at, sizeof operation.at);
    m_memory->put(&operation.before, sizeof operation.before);
    m_memory->putText(operation.path);
    m_memory->putText(operation.to);
    m_memory->putText(operation.bytes);
    ++m_memory->count;
}

std::uint32_t DiskJournal::size() const
{
    return m_memory->count;
}

DiskOperations DiskJournal::operations() const
{
    DiskOperations all(m_memory->count);
    std::size_t position = 0;
    for (DiskOperation& operation : all) {
        m_memory->get(position, &operation.kind, sizeof operation.kind);
        m_memory->get(position, &operation.file, sizeof operation.file);
        m_memory->get(position, &operation.at, sizeof operation.at);
        m_memory->get(position, &operation.before, sizeof operation.before);
        operation.path = m_memory->getText(position);
        operation.to = m_memory->getText(position);
        operation.bytes = m_memory->getText(position);
    }
    return all;
}

} // namespace QmTest
