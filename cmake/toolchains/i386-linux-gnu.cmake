# 32-bit x86 with the host's gcc in -m32 mode (g++-multilib) and Debian's
# :i386 development packages. Test programs run under qemu-i386, because some
# kernels refuse 32-bit x86 programs; on a kernel that runs them, configure
# with -DCMAKE_CROSSCOMPILING_EMULATOR= (empty) to run them directly.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)

# -m32 is part of the compiler command, not of CMAKE_<LANG>_FLAGS: flags given
# on the command line replace those, and objects built without -m32 do not
# link against the i386 libraries.
set(CMAKE_C_COMPILER gcc -m32)
set(CMAKE_CXX_COMPILER g++ -m32)

# The target's .pc files only; the host's would hand out x86_64 libraries.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/i386-linux-gnu/pkgconfig:/usr/share/pkgconfig")

if(NOT DEFINED CMAKE_CROSSCOMPILING_EMULATOR)
  find_program(QZCAP_QEMU_I386 qemu-i386)
  if(NOT QZCAP_QEMU_I386)
    message(FATAL_ERROR "qemu-i386 not found: install qemu-user "
                        "(scripts/install-deps.sh i386 does), or configure with "
                        "-DCMAKE_CROSSCOMPILING_EMULATOR= to run tests natively")
  endif()
  set(CMAKE_CROSSCOMPILING_EMULATOR ${QZCAP_QEMU_I386})
endif()
