# Finds the required and optional dependencies and sets PELMORA_HAVE_* for the summary and the code.
find_package(PkgConfig REQUIRED)
find_package(nlohmann_json 3.10 REQUIRED)
find_package(Threads REQUIRED)

function(pelmora_optional_pkg var setting module)
  set(${var} OFF PARENT_SCOPE)
  if(setting STREQUAL "OFF")
    return()
  endif()
  pkg_check_modules(${var}_PKG IMPORTED_TARGET ${module})
  if(${var}_PKG_FOUND)
    set(${var} ON PARENT_SCOPE)
  elseif(setting STREQUAL "ON")
    message(FATAL_ERROR "${module} was required (ON) but not found")
  endif()
endfunction()

pelmora_optional_pkg(PELMORA_HAVE_SYSTEMD "${PELMORA_SYSTEMD}" libsystemd)
pelmora_optional_pkg(PELMORA_HAVE_XCB "${PELMORA_XCB}" "xcb;xcb-ewmh")

set(PELMORA_HAVE_GUI OFF)
if(PELMORA_BUILD_GUI)
  find_package(Qt6 6.4 COMPONENTS Widgets DBus Test)
  if(Qt6_FOUND)
    set(PELMORA_HAVE_GUI ON)
  else()
    message(WARNING "Qt 6 Widgets not found: the desktop application is not built")
  endif()
endif()

# Code that runs as root (the helper daemon, and pelmora-nettop, which the daemon starts for an authorised
# client) gets the toolchain's hardening: fortified libc calls (checked at run time where sizes are known at
# compile time, which needs an optimised build), stack canaries, and position-independent code. Executables
# are also linked as PIE with relocations resolved at start and then made read-only (full RELRO, BIND_NOW).
function(pelmora_harden_root_code)
  foreach(target IN LISTS ARGN)
    target_compile_options(${target} PRIVATE -fstack-protector-strong -fPIE
      "$<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=3>")
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "EXECUTABLE")
      target_link_options(${target} PRIVATE -pie -Wl,-z,relro,-z,now)
    endif()
  endforeach()
endfunction()
