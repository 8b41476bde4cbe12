# kelvo runs at every service start, so its start-up is its speed, and most of
# a short run went into loading shared libraries. With KELVO_STATIC the
# programs carry SQLite and libcap from their static archives, and kelvo the
# C++ runtime as well: only the C library, and libm that SQLite needs, are
# left to the dynamic loader. bench/startup.sh shows the effect.
#
# On by default for a Release build (what make install and the package use),
# off for the sanitizer build, whose runtime must see the shared libraries.
if(CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT KELVO_SANITIZE)
  set(kelvo_static_default ON)
else()
  set(kelvo_static_default OFF)
endif()
option(KELVO_STATIC "Link SQLite, libcap and kelvo's C++ runtime statically" ${kelvo_static_default})

# Link options of kelvo; hgxrepo and the tests keep the defaults.
set(KELVO_PROGRAM_LINK_OPTIONS "")
# Link options of the etcd client module (hgx-etcd.so). The C++ runtime goes
# into the module, hidden, so that loading it does not also load and relocate
# libstdc++ and libgcc_s (a quarter of the symbol lookups of the load): its
# interface is C, so nothing of the runtime crosses it.
set(KELVO_MODULE_LINK_OPTIONS "")
if(NOT KELVO_STATIC)
  find_library(KELVO_CAP_SHARED NAMES cap REQUIRED)
  set(KELVO_CAP_LIBRARY ${KELVO_CAP_SHARED})
else()
  find_library(KELVO_SQLITE3_ARCHIVE NAMES libsqlite3.a REQUIRED)
  # Every user of SQLite::SQLite3 gets the archive; what the archive itself
  # needs from the system comes along.
  set_target_properties(SQLite::SQLite3 PROPERTIES IMPORTED_LOCATION "${KELVO_SQLITE3_ARCHIVE}")
  set_property(TARGET SQLite::SQLite3 APPEND PROPERTY INTERFACE_LINK_LIBRARIES
               m Threads::Threads ${CMAKE_DL_LIBS})
  find_library(KELVO_CAP_ARCHIVE NAMES libcap.a REQUIRED)
  set(KELVO_CAP_LIBRARY ${KELVO_CAP_ARCHIVE})
  set(KELVO_PROGRAM_LINK_OPTIONS -static-libstdc++ -static-libgcc LINKER:-O1,--as-needed)
  set(KELVO_MODULE_LINK_OPTIONS -static-libstdc++ -static-libgcc
      LINKER:--exclude-libs,ALL LINKER:-O1,--as-needed)
endif()
