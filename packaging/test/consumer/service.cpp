#include <iostream>

#include <DiscData.h>

int main()
{
    namespace DiscoverySvc = Veltrane::Quillmark::Tlx::DiscoverySvc;
    const DiscoverySvc::Subject subject("caf\xc3\xa9*");
    std::cout << subject.getSubjectFileName() << "\n";
    return 0;
}
