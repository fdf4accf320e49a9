# Runs at install time (from an install(CODE) block of the top-level
# CMakeLists.txt, which sets QB_PC_TEMPLATE, QB_PC_WORK, QB_PC_LIBDIR_REL,
# QB_PC_INCLUDEDIR_REL and PROJECT_VERSION): writes qbimage.pc for the prefix
# that is being installed to, which `cmake --install --prefix P` may set
# differently from the configured one, and installs it under the library
# folder's pkgconfig/. DESTDIR is honoured by file(INSTALL).
set(QB_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
foreach(kind LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${QB_PC_${kind}_REL}")
    set(QB_PC_${kind} "${QB_PC_${kind}_REL}")
    set(QB_PC_${kind}_FULL "${QB_PC_${kind}_REL}")
  else()
    set(QB_PC_${kind} "\${prefix}/${QB_PC_${kind}_REL}")
    set(QB_PC_${kind}_FULL "${CMAKE_INSTALL_PREFIX}/${QB_PC_${kind}_REL}")
  endif()
endforeach()
configure_file("${QB_PC_TEMPLATE}" "${QB_PC_WORK}" @ONLY)
file(INSTALL "${QB_PC_WORK}" DESTINATION "${QB_PC_LIBDIR_FULL}/pkgconfig")
