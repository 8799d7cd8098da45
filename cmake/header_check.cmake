# Every header compiles alone, included twice: nothing it needs is left to
# whatever a source happened to include before it, and its guard holds.
# Built with everything else, so a header that stops standing alone stops
# the build.
file(GLOB KST_ALL_HEADERS CONFIGURE_DEPENDS
     ${CMAKE_SOURCE_DIR}/include/*.h ${CMAKE_SOURCE_DIR}/lib/*.h ${CMAKE_SOURCE_DIR}/common/*.h
     ${CMAKE_SOURCE_DIR}/kestrin/*.h ${CMAKE_SOURCE_DIR}/kstweb/*.h ${CMAKE_SOURCE_DIR}/lardcat/*.h)
set(KST_HEADER_CHECKS)
foreach(h ${KST_ALL_HEADERS})
  file(RELATIVE_PATH rel ${CMAKE_SOURCE_DIR} ${h})
  string(MAKE_C_IDENTIFIER ${rel} id)
  set(out ${CMAKE_BINARY_DIR}/header_check/${id}.cpp)
  file(CONFIGURE OUTPUT ${out} CONTENT "#include \"${rel}\"\n#include \"${rel}\"\n")
  list(APPEND KST_HEADER_CHECKS ${out})
endforeach()
add_library(header_check OBJECT ${KST_HEADER_CHECKS})
target_include_directories(header_check PRIVATE ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/include
                           ${CMAKE_SOURCE_DIR}/lib ${CMAKE_SOURCE_DIR}/common ${CMAKE_SOURCE_DIR}/kestrin)
