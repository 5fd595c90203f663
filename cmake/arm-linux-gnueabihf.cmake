# Builds for 32-bit ARM with Debian's cross compiler. The libraries come from the sysroot made by
# arm_sysroot.sh. Programs of the build run under QEMU with the same libraries.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

get_filename_component(CSD_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build-arm/sysroot ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH ${CSD_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CSD_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${CSD_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig)

# The C library is the compiler's own, so --sysroot is not used. The tests run what the packages contain, whose
# build flags make the C library check some calls.
set(CMAKE_CXX_FLAGS_INIT
  "-D_FORTIFY_SOURCE=2 -isystem ${CSD_SYSROOT}/usr/include -isystem ${CSD_SYSROOT}/usr/include/arm-linux-gnueabihf")
set(CMAKE_EXE_LINKER_FLAGS_INIT
  "-Wl,-rpath-link,${CSD_SYSROOT}/usr/lib/arm-linux-gnueabihf:${CSD_SYSROOT}/lib/arm-linux-gnueabihf")
set(CMAKE_SKIP_RPATH ON)  # QEMU finds the libraries at their paths on the target

# In its own process namespace a program inherits orphans, which QEMU cannot wait for.
set(CSD_QEMU qemu-arm -L ${CSD_SYSROOT} -E LD_LIBRARY_PATH=${CMAKE_BINARY_DIR})
set(CMAKE_CROSSCOMPILING_EMULATOR unshare --pid --fork --mount-proc ${CSD_QEMU})
