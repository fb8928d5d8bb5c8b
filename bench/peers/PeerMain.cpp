// One client of the services that the benchmark compares with. ClientLoop.h has its protocol.

#include "PeerOperations.h"

namespace {

std::string describeCurrent()
{
    try {
        throw;
    } catch (const std::exception& e) {
        return e.what();
    }
}

} // namespace

int main()
{
    using namespace Veltrane::Quillmark::Bench;
    auto operations = etcdOperations();
    operations.merge(gatewayOperations());
    operations.merge(ldapOperations());
    return serveDriver(operations, describeCurrent);
}
