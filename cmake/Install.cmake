# The install layout (cmake --install, make install, the Debian package):
#   bin/kelvo, bin/hgxrepo, bin/kelvo-diff, bin/kelvo-lint, bin/kelvo-apply
#   share/man/man1/                       their pages, title line carrying the version
#   share/doc/kelvo/                      README.md, the guides, examples/ (scripts
#                                         keep their run bit)
#   lib/kelvo/hgx-etcd.so                 the etcd store's client, when built,
#   lib/kelvo/hgx-etcd-tls.so             and its client for etcds:// (libcurl)
#   share/bash-completion/completions/    hgxrepo; kelvo, kelvo-diff, kelvo-lint,
#                                         kelvo-apply (one file under each name)
#   /lib/wrn/stencils, /var/lib/hgx       kelvo's default stencil directory and
#                                         the repository's directory; absolute,
#                                         so below DESTDIR but not the prefix
# tests/install/layout_test.sh checks it on a DESTDIR install.
include(GNUInstallDirs)

# The manual pages' title line names the release ("kelvo 1.0"); the installed
# copies carry the project's version whatever docs/ says. They are remade when
# the page or the version changes, and only then.
foreach(page kelvo.1 hgxrepo.1 kelvo-diff.1 kelvo-lint.1 kelvo-apply.1)
  set(source ${CMAKE_CURRENT_SOURCE_DIR}/docs/${page})
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
  file(READ ${source} text)
  set(title "^(\\.TH [^\n]*\")kelvo [^\"]*(\")")
  if(NOT text MATCHES "${title}")
    message(FATAL_ERROR "${source}: the .TH line does not name \"kelvo <version>\"")
  endif()
  string(REGEX REPLACE "${title}" "\\1kelvo ${PROJECT_VERSION}\\2" text "${text}")
  file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/docs/${page}.new "${text}")
  configure_file(${CMAKE_CURRENT_BINARY_DIR}/docs/${page}.new ${CMAKE_CURRENT_BINARY_DIR}/docs/${page}
                 COPYONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/docs/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endforeach()

install(FILES README.md docs/stencil-language.md docs/etcd-store.md docs/fleet.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR})
# A script among the examples is run as it is installed (hgxrepo sync
# --exec): it keeps the mode it has in the tree.
install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples USE_SOURCE_PERMISSIONS)
# bash-completion loads a program's completion from the file of its name.
install(FILES completion/hgxrepo DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
foreach(program kelvo kelvo-diff kelvo-lint kelvo-apply)
  install(FILES completion/kelvo DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
          RENAME ${program})
endforeach()

# Empty directories the programs expect; the stencils of services and the
# repository itself come from elsewhere.
install(DIRECTORY DESTINATION /lib/wrn/stencils)
install(DIRECTORY DESTINATION /var/lib/hgx)
