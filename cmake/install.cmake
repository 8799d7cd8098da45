# What `cmake --install` puts where, under any prefix and DESTDIR; the
# Debian package (cmake/package.cmake) is made of the same rules.
include(GNUInstallDirs)

set(KST_UNITDIR "lib/systemd/system" CACHE STRING
    "Directory of the systemd units, under the prefix unless absolute")
set(KST_COMPLETIONDIR "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" CACHE STRING
    "Directory of the bash completions, under the prefix unless absolute")

string(TIMESTAMP KST_MAN_DATE "%Y-%m-%d" UTC)

# First of all: a destination that can't be written to stops the install
# with one line that says so, before anything lands.
install(CODE [[
  set(_kst_dest "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}")
  set(_kst_dir "${_kst_dest}")
  while(NOT EXISTS "${_kst_dir}")
    get_filename_component(_kst_dir "${_kst_dir}" DIRECTORY)
  endwhile()
  execute_process(COMMAND test -w "${_kst_dir}" RESULT_VARIABLE _kst_rc)
  if(NOT _kst_rc EQUAL 0)
    # The reason on one line of its own, as the system tells it; CMake's
    # error block after it would wrap a long path.
    message(NOTICE "kst: cannot install into ${_kst_dest}: ${_kst_dir} is read-only or not writable")
    message(FATAL_ERROR "kst: nothing was installed")
  endif()
]])

install(TARGETS kst kst-web lardcat RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(PROGRAMS dist/kst-clean-rings DESTINATION ${CMAKE_INSTALL_LIBEXECDIR})
install(FILES dist/kst.conf dist/kst-web.conf DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES README.md docs/alert-log.md docs/operations.md dist/debian/copyright
        DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES dist/completion/kst dist/completion/kst-web dist/completion/lardcat
        DESTINATION ${KST_COMPLETIONDIR})

# The manual pages and the units name installed paths: they are rendered at
# install time for the prefix really used (`cmake --install --prefix`, or
# /usr when CPack makes the package), so they are never wrong.
set(KST_RENDER_ARGS
    -DVERSION=${PROJECT_VERSION} -DDATE=${KST_MAN_DATE}
    -DBINDIR=${CMAKE_INSTALL_BINDIR} -DLIBEXECDIR=${CMAKE_INSTALL_LIBEXECDIR}
    -DDOCDIR=${CMAKE_INSTALL_DOCDIR} -DUNITDIR=${KST_UNITDIR})

function(kst_install_rendered template dest gzip)
  get_filename_component(name "${template}" NAME)
  string(REGEX REPLACE "\\.in$" "" name "${name}")
  set(out_name "${name}")
  if(gzip)
    string(APPEND out_name ".gz")
  endif()
  if(NOT IS_ABSOLUTE "${dest}")
    set(dest "\${CMAKE_INSTALL_PREFIX}/${dest}")
  endif()
  # One directory per destination: two installs from the same tree at once
  # (a DESTDIR and CPack's staging) don't share files.
  install(CODE "
    string(MD5 _kst_key \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}\")
    set(_kst_out \"${CMAKE_BINARY_DIR}/rendered/\${_kst_key}\")
    execute_process(COMMAND \"${CMAKE_COMMAND}\" \"-DIN=${CMAKE_SOURCE_DIR}/${template}\"
                            \"-DOUT=\${_kst_out}/${name}\" \"-DPREFIX=\${CMAKE_INSTALL_PREFIX}\"
                            -DGZIP=${gzip} ${KST_RENDER_ARGS} -P \"${CMAKE_SOURCE_DIR}/cmake/render.cmake\"
                    RESULT_VARIABLE _kst_rc)
    if(NOT _kst_rc EQUAL 0)
      message(FATAL_ERROR \"kst: rendering ${template} failed\")
    endif()
    file(INSTALL DESTINATION \"${dest}\" TYPE FILE FILES \"\${_kst_out}/${out_name}\")
  ")
endfunction()

foreach(page kst.1 kst-web.1 lardcat.1 kst-clean-rings.8)
  string(REGEX REPLACE ".*\\." "" section ${page})
  kst_install_rendered(man/${page}.in ${CMAKE_INSTALL_MANDIR}/man${section} ON)
endforeach()
kst_install_rendered(dist/kst@.service.in ${KST_UNITDIR} OFF)
kst_install_rendered(dist/kst-web.service.in ${KST_UNITDIR} OFF)

# The same pages in the build tree, for the configured prefix, to read with
# `man -l build/man/kst.1` before anything is installed.
set(KST_MAN_PAGES)
foreach(page kst.1 kst-web.1 lardcat.1 kst-clean-rings.8)
  set(out ${CMAKE_BINARY_DIR}/man/${page})
  add_custom_command(OUTPUT ${out}
    COMMAND ${CMAKE_COMMAND} -DIN=${CMAKE_SOURCE_DIR}/man/${page}.in -DOUT=${out}
            -DPREFIX=${CMAKE_INSTALL_PREFIX} -DGZIP=OFF ${KST_RENDER_ARGS}
            -P ${CMAKE_SOURCE_DIR}/cmake/render.cmake
    DEPENDS ${CMAKE_SOURCE_DIR}/man/${page}.in ${CMAKE_SOURCE_DIR}/cmake/render.cmake
    COMMENT "Manual page ${page}" VERBATIM)
  list(APPEND KST_MAN_PAGES ${out})
endforeach()
add_custom_target(man ALL DEPENDS ${KST_MAN_PAGES})
