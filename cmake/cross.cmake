# For another processor: Debian's cross compilers, and the libraries that scripts/cross-root has fetched for it.
#   VOLORN_CROSS: Debian's name of the processor.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VOLORN_CROSS)
set(processor_arm64 aarch64 aarch64-linux-gnu)
set(processor_armhf arm arm-linux-gnueabihf)
set(processor_i386 i686 i686-linux-gnu)
if(NOT DEFINED processor_${VOLORN_CROSS})
  message(FATAL_ERROR "VOLORN_CROSS: no such processor: ${VOLORN_CROSS}")
endif()
list(GET processor_${VOLORN_CROSS} 0 CMAKE_SYSTEM_PROCESSOR)
list(GET processor_${VOLORN_CROSS} 1 triplet)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
cmake_path(SET CMAKE_FIND_ROOT_PATH NORMALIZE ${CMAKE_CURRENT_LIST_DIR}/../build/cross/${VOLORN_CROSS})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# ncurses is found by way of a linker script, and its library needs another: the linker looks for both itself.
string(REPLACE i686 i386 folder ${triplet})
set(folders ${CMAKE_FIND_ROOT_PATH}/lib/${folder} ${CMAKE_FIND_ROOT_PATH}/usr/lib/${folder})
list(GET folders 0 folder)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-L${folder} -Wl,-rpath-link=${folder}")

# Where lies what a cross-built program loads: the package's needs are looked up there.
set(VOLORN_CROSS_LIBRARIES /usr/${triplet}/lib ${folders})
