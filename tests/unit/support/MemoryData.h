#pragma once
// Collection data in memory.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "DiscData.h"

namespace QmTest {

namespace Disc = Veltrane::Quillmark::Tlx::DiscoverySvc;

/// Reads return a text in pieces of at most `piece` bytes. Writes succeed and store nothing.
class MemoryData : public Disc::CollectionData
{
  public:
    /// The result of the read after the end of the text.
    enum End
    {
        ET_PLAIN,     ///< it reports the end
        ET_MINUS_ONE, ///< it fails
        ET_THROWS
    };

    explicit MemoryData(std::string text = {}, std::size_t piece = SIZE_MAX, End end = ET_PLAIN)
        : m_text(std::move(text)), m_piece(piece), m_end(end)
    {
    }
    bool open(Disc::OpenMode mode, const char* argument) override
    {
        if (onOpen)
            onOpen(mode, argument);
        m_position = 0;
        setOpenFailure(openFailure);
        return opens;
    }
    std::size_t readCollection(std::size_t length, void* buffer) const override
    {
        largestRead = std::max(largestRead, length);
        const std::size_t left = m_text.size() - m_position;
        if (left == 0 && m_end == ET_MINUS_ONE)
            return static_cast<std::size_t>(-1);
        if (left == 0 && m_end == ET_THROWS)
            throw 17;
        const std::size_t count =
            m_text.copy(static_cast<char*>(buffer), std::min(length, m_piece), m_position);
        m_position += count;
        return count;
    }
    bool writeCollection(std::size_t, const void*) const override { return true; }

    bool opens = true;       ///< what open() returns
    std::string openFailure; ///< the reason that open() gives
    std::function<void(Disc::OpenMode, const char*)> onOpen;
    mutable std::size_t largestRead = 0; ///< the most bytes that one read asked for

  private:
    const std::string m_text;
    const std::size_t m_piece;
    const End m_end;
    mutable std::size_t m_position = 0;
};

} // namespace QmTest
