#pragma once
// The names of the metadata files in the store's directory, in little memory.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// A sorted list of names. Fill it, sort it once, then any thread may read it.
class NameList
{
  public:
    void add(std::string_view name);
    void sort();

    std::size_t size() const { return m_places.size(); }
    std::string_view operator[](std::size_t index) const;

    /// The first place whose name is not less than the given one.
    std::size_t lowerBound(std::string_view name) const;
    /// The first place whose name is greater than the given one.
    std::size_t upperBound(std::string_view name) const;

  private:
    struct Place
    {
        std::uint64_t offset : 48;
        std::uint64_t length : 16;
    };
    std::string_view at(Place place) const { return {m_bytes.data() + place.offset, place.length}; }

    std::string m_bytes; ///< all names, one after another, each with a zero byte behind it
    std::vector<Place> m_places;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
