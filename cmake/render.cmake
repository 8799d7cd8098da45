# Renders one template of the tree (a manual page, a systemd unit) for the
# prefix it is installed under, so that the installed files name the paths
# where the programs really are:
#   cmake -DIN=template -DOUT=file -DPREFIX=/usr [-DGZIP=ON] -DVERSION=...
#         -DDATE=... -DBINDIR=bin -DLIBEXECDIR=libexec -DDOCDIR=share/doc/kst
#         -DUNITDIR=lib/systemd/system -P render.cmake
# Relative directories are taken under PREFIX, absolute ones as they stand.
foreach(v IN ITEMS IN OUT PREFIX VERSION DATE BINDIR LIBEXECDIR DOCDIR UNITDIR)
  if(NOT DEFINED ${v})
    message(FATAL_ERROR "render.cmake: ${v} is not set")
  endif()
endforeach()

function(full_path out dir)
  if(IS_ABSOLUTE "${dir}")
    set(${out} "${dir}" PARENT_SCOPE)
  else()
    set(${out} "${PREFIX}/${dir}" PARENT_SCOPE)
  endif()
endfunction()

full_path(KST_BINDIR_FULL "${BINDIR}")
full_path(KST_LIBEXECDIR_FULL "${LIBEXECDIR}")
full_path(KST_DOCDIR_FULL "${DOCDIR}")
full_path(KST_UNITDIR_FULL "${UNITDIR}")
set(PROJECT_VERSION "${VERSION}")
set(KST_MAN_DATE "${DATE}")

configure_file("${IN}" "${OUT}" @ONLY)
if(GZIP)
  # -n: no name and no time stamp in the header, the same bytes every time.
  execute_process(COMMAND gzip -9nf "${OUT}" RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "render.cmake: gzip ${OUT} failed: ${rc}")
  endif()
endif()
