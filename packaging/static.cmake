# The tool in one file, for devices with another C library. What the GNU C library cannot do without its
# shared parts (users and groups by name, host names, character sets, dlopen) makes the linker warn;
# such a warning ends the build. Commands are run as ever, by the shell of the device.
if(CORVIK_STATIC)
  # In place of -pie, which would undo it.
  set(CMAKE_CXX_LINK_OPTIONS_PIE -static-pie -Wl,--fatal-warnings)
endif()
