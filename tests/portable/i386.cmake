# cmake/cross.cmake, for programs that start on an amd64 machine as it is: each names its loader and its libraries.
include(${CMAKE_CURRENT_LIST_DIR}/../../cmake/cross.cmake)
string(REPLACE ";" ":" libraries "${VOLORN_CROSS_LIBRARIES}")
string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT
  " -Wl,--dynamic-linker=/usr/${triplet}/lib/ld-linux.so.2 -Wl,--disable-new-dtags,-rpath=${libraries}")
