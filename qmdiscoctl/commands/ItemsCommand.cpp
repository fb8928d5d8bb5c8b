// The discovered items of all records with lists of items, and of all pulls that answer.

#include <algorithm>
#include <memory>
#include <optional>
#include <tuple>
#include <vector>

#include <FileSystem.h>

#include "Commands.h"
#include "Text.h"
#include "Unread.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

struct Item
{
    std::string host;
    std::string subject;
    std::string name;
    std::string explorer;
    std::optional<Explorers::FileSystem> fileSystem;

    friend bool operator<(const Item& a, const Item& b)
    {
        return std::tie(a.host, a.name, a.subject) < std::tie(b.host, b.name, b.subject);
    }
};

/// An item of an unknown kind. It has only a host and a name.
class NamedItemSource : public Tlx::QuerySource
{
  public:
    explicit NamedItemSource(const Item& item) : m_item(item) {}
    Tlx::QueryValue valueOf(const std::string& field) const override
    {
        if (field == "host")
            return Tlx::QueryValue::text(m_item.host);
        if (field == "mount")
            return Tlx::QueryValue::text(m_item.name);
        return {};
    }

  private:
    const Item& m_item;
};

bool matches(const Tlx::TlxQuery& filter, const Item& item)
{
    return item.fileSystem
               ? filter.matches(Explorers::FileSystemSource(item.host, *item.fileSystem))
               : filter.matches(NamedItemSource(item));
}

class Items
{
  public:
    explicit Items(const std::string& filter) : m_parameters(nullptr, filter.c_str())
    {
        m_filter.setQuery(filter);
    }
    [[nodiscard]] Result<> read(Session& session);
    std::string text() const;
    Json document() const;

  private:
    void take(Svc::CollectionItemIterator& items);

    const Svc::FilterParameters m_parameters;
    Tlx::TlxQuery m_filter;
    std::vector<Item> m_items;
    std::vector<Unread> m_unread;
};

Result<> Items::read(Session& session)
{
    const Options& options = session.options;
    auto done =
        session.research(Svc::DQ_DISCOVERY_DATA, orAny(options.subject), orAny(options.authority),
                         options.filter.empty() ? nullptr : &m_parameters,
                         [this](Svc::CollectionItemIterator& items) { take(items); });
    std::sort(m_items.begin(), m_items.end());
    return done;
}

void Items::take(Svc::CollectionItemIterator& items)
{
    const std::string subject = items.getSubject() ? items.getSubject()->getSubject().utf8() : "";
    const std::string host = items.getAuthority() ? items.getAuthority()->getName().utf8() : "";
    noteUnread(items, m_unread);
    while (Svc::CollectionItem* next = items.getNextCollectionItem()) {
        const Tlx::AutoDereference<Svc::CollectionItem> held(next);
        const auto* discovered = dynamic_cast<const Svc::DiscoveredItem*>(next);
        if (!discovered)
            continue; // a description of filters is no discovered item
        Item item{host, subject, discovered->getName(), discovered->getExplorerName().utf8(),
                  Explorers::readFileSystem(*discovered)};
        // Filter here, too. Some explorers do not filter, and a filter gets lost on its way through
        // another host.
        if (matches(m_filter, item))
            m_items.push_back(std::move(item));
    }
}

std::string sizeText(const std::optional<std::uint64_t>& bytes)
{
    return bytes ? shortBytesText(static_cast<double>(*bytes)) : "";
}

std::string Items::text() const
{
    std::vector<std::vector<std::string>> rows{
        {"HOST", "MOUNT", "DEVICE", "TYPE", "SIZE", "USED", "RECORD"}};
    for (const Item& item : m_items) {
        const Explorers::FileSystem fileSystem = item.fileSystem.value_or(Explorers::FileSystem());
        rows.push_back({item.host, item.name, fileSystem.device, fileSystem.type,
                        sizeText(fileSystem.size), sizeText(fileSystem.used), item.subject});
    }
    return formatTable(rows) + textOf(m_unread);
}

Json numberOrNull(const std::optional<std::uint64_t>& number)
{
    return number ? Json(*number) : Json();
}

Json Items::document() const
{
    Json document = {{"items", Json::array()}, {"unread", documentOf(m_unread)}};
    for (const Item& item : m_items) {
        Json entry = {{"host", item.host},
                      {"subject", item.subject},
                      {"name", item.name},
                      {"explorer", item.explorer}};
        if (item.fileSystem)
            entry.update({{"device", item.fileSystem->device},
                          {"type", item.fileSystem->type},
                          {"options", item.fileSystem->options},
                          {"readOnly", item.fileSystem->readOnly},
                          {"size", numberOrNull(item.fileSystem->size)},
                          {"used", numberOrNull(item.fileSystem->used)}});
        document["items"].push_back(entry);
    }
    return document;
}

} // namespace

Result<> runItems(Session& session)
{
    Items items(session.options.filter);
    if (auto done = items.read(session); !done)
        return done;
    return answer(session, items.text(), items.document());
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
