#pragma once
// The only way to the ORB's C++ mapping. Everything above this library uses the standard mapping
// only (stubs, skeletons, PortableServer, CORBA::SystemException) and includes this header to get
// it. So another ORB could replace this one.

#if defined(__GNUC__)
#pragma GCC system_header
#endif

#include <omniORB4/CORBA.h>
