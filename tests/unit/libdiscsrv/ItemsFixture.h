#pragma once
// Discoveries whose collection data is a document of the test's own, and what the researcher makes
// of it.

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "AuthSubIterator.h"
#include "PlainDiscovery.h"

namespace QmTest {

/// A document in memory, which may be hard to read. Remembers what it was opened with.
class TextData : public Disc::CollectionData
{
  public:
    enum End
    {
        ET_PLAIN,
        ET_MINUS_ONE, ///< the read after the text fails
        ET_THROWS
    };

    explicit TextData(std::string text, std::size_t piece = SIZE_MAX, End end = ET_PLAIN)
        : m_text(std::move(text)), m_piece(piece), m_end(end)
    {
    }
    bool open(Disc::OpenMode mode, const char* arg) override
    {
        if (onOpen)
            onOpen(mode, arg);
        m_position = 0;
        setOpenFailure(openFailure);
        return opens;
    }
    std::size_t readCollection(std::size_t length, void* buffer) const override
    {
        const std::size_t left = m_text.size() - m_position;
        if (left == 0 && m_end == ET_MINUS_ONE)
            return static_cast<std::size_t>(-1);
        if (left == 0 && m_end == ET_THROWS)
            throw 17;
        const std::size_t count = std::min({left, length, m_piece});
        std::memcpy(buffer, m_text.data() + m_position, count);
        m_position += count;
        return count;
    }
    bool writeCollection(std::size_t, const void*) const override { return false; }

    bool opens = true;
    std::string openFailure;
    std::function<void(Disc::OpenMode, const char*)> onOpen;

  private:
    const std::string m_text;
    const std::size_t m_piece;
    const End m_end;
    mutable std::size_t m_position = 0;
};

/// Yields what the test put into it.
class ListedDiscoveries : public Disc::DiscoveryIterator
{
  public:
    ListedDiscoveries() : DiscoveryIterator(Disc::AT_ANYANDALL, "", "") {}
    Disc::Discovery* getNext() override
    {
        if (m_next == m_records.size())
            return nullptr;
        return Tlx::AutoDereference<Disc::Discovery>(m_records[m_next++]).release();
    }
    /// Owns data.
    void add(Disc::CollectionData* data, const std::string& authority = "host1",
             const std::string& subject = "subject1")
    {
        Tlx::AutoDereference<Disc::Discovery> record(new PlainDiscovery(data));
        record->setAuthority(new Disc::Authority(authority, Disc::AT_QMKCLIENT));
        record->setSubject(new Disc::Subject(subject));
        m_records.push_back(record);
    }
    void add(const Tlx::AutoDereference<Disc::Discovery>& record) { m_records.push_back(record); }

  private:
    std::vector<Tlx::AutoDereference<Disc::Discovery>> m_records;
    std::size_t m_next = 0;
};

/// The items of one discovery with the data, which becomes owned.
inline Tlx::AutoDereference<Disc::CollectionItemIterator> research(Disc::CollectionData* data)
{
    const Tlx::AutoDereference<ListedDiscoveries> discoveries(new ListedDiscoveries);
    discoveries->add(data);
    const Tlx::AutoDereference<Disc::AuthSubIterator> all(
        new Disc::AuthSubIterator(discoveries.get()));
    return Tlx::AutoDereference<Disc::CollectionItemIterator>(
        all->getNextCollectionItemIterator(nullptr));
}

/// What was read of a document.
struct ReadItems
{
    bool parsed = false;
    std::vector<Tlx::AutoDereference<Disc::CollectionItem>> items;

    /// Item i, written; "?" when there is none.
    std::string written(std::size_t i, Tlx::XmlStr::Encoding encoding = Tlx::XmlStr::XE_UTF8) const
    {
        return i < items.size() ? QmTest::written(*items[i], encoding) : "?";
    }
    /// All of them.
    std::vector<std::string> all() const
    {
        std::vector<std::string> texts;
        for (std::size_t i = 0; i < items.size(); ++i)
            texts.push_back(written(i));
        return texts;
    }
    const Disc::DiscoveredItem* discovered(std::size_t i) const
    {
        return i < items.size() ? dynamic_cast<const Disc::DiscoveredItem*>(items[i].get())
                                : nullptr;
    }
};

inline ReadItems readItems(Disc::CollectionData* data)
{
    ReadItems result;
    const auto iterator = research(data);
    if (!iterator)
        return result;
    result.parsed = iterator->isParsed();
    while (Disc::CollectionItem* next = iterator->getNextCollectionItem())
        result.items.emplace_back(next);
    return result;
}

inline ReadItems readItems(const std::string& document)
{
    return readItems(new TextData(document));
}

} // namespace QmTest
