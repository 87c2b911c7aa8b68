# 32-bit ARM (Debian's armhf: ARMv7, hard float) with clang and lld, Debian's
# *-armhf-cross libc, libstdc++ and libgcc, and the :armhf development
# packages. Debian's gcc cross compiler would conflict with gcc-multilib,
# which the i386 target needs. Test programs run under qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

# The target goes on every compile and link command whatever the flags are.
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET arm-linux-gnueabihf)
set(CMAKE_CXX_COMPILER_TARGET arm-linux-gnueabihf)

# Only links take -fuse-ld: on a compile it is an unused argument, an error
# under -Werror. The host's GNU ld cannot link ARM objects.
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT -fuse-ld=lld)
endforeach()

# The target's .pc files only; the host's would hand out x86_64 libraries.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig")

if(NOT DEFINED CMAKE_CROSSCOMPILING_EMULATOR)
  find_program(QZCAP_QEMU_ARM qemu-arm)
  if(NOT QZCAP_QEMU_ARM)
    message(FATAL_ERROR "qemu-arm not found: install qemu-user "
                        "(scripts/install-deps.sh armhf does)")
  endif()
  set(CMAKE_CROSSCOMPILING_EMULATOR ${QZCAP_QEMU_ARM})
endif()
