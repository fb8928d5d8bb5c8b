// Fuzzes documents of discovered items, which other hosts write. The size of the pieces that arrive
// must not change the result. Reading a written item must give the same item. The only exception is
// explorer data that is not XML, because it is written unchanged.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <tlx/Assert.h>
#include <tlx/Log.h>

#include "../unit/libdiscsrv/ItemsFixture.h"
#include "Fuzz.h"

namespace {

using namespace Veltrane::Quillmark::Tlx;
using namespace Veltrane::Quillmark::Tlx::DiscoverySvc;
using QmTest::MemoryData;
using QmTest::ReadItems;
using QmTest::readItems;

bool hasExplorerData(const ReadItems& items, std::size_t i)
{
    const DiscoveredItem* item = items.discovered(i);
    return item && AutoDereference<ExplorerData>(item->getExplorerData());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    LoggerFactory::instance().setLevel(0);
    // A document may make assertions fail.
    setAssertionReporter([](const char*, const char*, int) {});
    const std::string text(reinterpret_cast<const char*>(data), size);
    const ReadItems whole = readItems(text);
    const ReadItems pieces = readItems(new MemoryData(text, 1));
    require(whole.parsed == pieces.parsed);
    require(!whole.parsed || whole.all() == pieces.all());
    for (std::size_t i = 0; i < whole.items.size(); ++i) {
        const std::string written = whole.written(i);
        const char* const root = whole.discovered(i) ? "DiscoveredItems" : "FilterData";
        const ReadItems again =
            readItems("<" + std::string(root) + ">" + written + "</" + std::string(root) + ">");
        require(again.parsed || hasExplorerData(whole, i));
        require(!again.parsed || again.all() == std::vector<std::string>{written});
    }
    return 0;
}
