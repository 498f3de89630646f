# Finds libyang, sysrepo and libfrr: in LACPD_DEPS_PREFIX, or where scripts/deps.sh has put them.
if(NOT LACPD_DEPS_PREFIX)
  if(LACPD_SANITIZER STREQUAL "thread") # which sees only what it has built
    set(sanitize --sanitize thread)
  endif()
  execute_process(COMMAND ${CMAKE_SOURCE_DIR}/scripts/deps.sh ${sanitize} --prefix OUTPUT_VARIABLE LACPD_DEPS_PREFIX
                  OUTPUT_STRIP_TRAILING_WHITESPACE)
endif()
set(LACPD_DEPS_PREFIX "${LACPD_DEPS_PREFIX}" CACHE PATH "Prefix of libyang, sysrepo and libfrr")
if(NOT EXISTS "${LACPD_DEPS_PREFIX}/lib/libfrr.so")
  message(FATAL_ERROR "libfrr is not in ${LACPD_DEPS_PREFIX}: run scripts/deps.sh first, or set LACPD_DEPS_PREFIX")
endif()

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)

function(lacpd_imported name library)
  add_library(deps::${name} SHARED IMPORTED GLOBAL)
  set_target_properties(deps::${name} PROPERTIES IMPORTED_LOCATION "${LACPD_DEPS_PREFIX}/lib/lib${library}.so")
  target_include_directories(deps::${name} SYSTEM INTERFACE "${LACPD_DEPS_PREFIX}/include")
endfunction()

lacpd_imported(yang yang)
lacpd_imported(sysrepo sysrepo)
target_link_libraries(deps::sysrepo INTERFACE deps::yang)
lacpd_imported(frr frr)
target_include_directories(deps::frr SYSTEM INTERFACE "${LACPD_DEPS_PREFIX}/include/frr"
                           "${LACPD_DEPS_PREFIX}/include/frr/lib")
target_compile_definitions(deps::frr INTERFACE HAVE_CONFIG_H)
target_link_libraries(deps::frr INTERFACE deps::yang)
