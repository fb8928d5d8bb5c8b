// The operator's command line of the discovery service.

#include "Program.h"

int main(int argc, char** argv)
{
    return Veltrane::Quillmark::Qmdiscoctl::runProgram(argc, argv);
}
