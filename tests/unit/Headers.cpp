// This program only provides the precompiled headers of all unit tests; see CMakeLists.txt.
