#include <iostream>

#include <tlx/Uri.h>

int main()
{
    namespace Tlx = Veltrane::Quillmark::Tlx;
    std::cout << Tlx::uriEncode("a/b", Tlx::URI_MASK_FILE_NAME) << "\n";
    return 0;
}
