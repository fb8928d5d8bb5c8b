// The program for which the headers of all unit tests are compiled; see CMakeLists.txt.
