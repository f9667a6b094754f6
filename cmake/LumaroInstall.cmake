# The installed layout: programs in bin/ and libexec/lumaro/, data in share/, and files whose
# text names installed paths (manifests, activation files, units), written at install time so
# that they name the prefix actually installed into (`cmake --install --prefix`, a package).
include_guard(GLOBAL)
include(GNUInstallDirs)

set(LUMARO_INSTALL_LIBEXECDIR ${CMAKE_INSTALL_LIBEXECDIR}/lumaro)
set(LUMARO_INSTALL_EXTENSIONSDIR ${CMAKE_INSTALL_DATADIR}/lumaro/extensions)
set(LUMARO_INSTALL_PICKERDIR ${LUMARO_INSTALL_LIBEXECDIR}/broadcast-picker)

# lumaro_install_configured(TEMPLATE DESTINATION [RENAME name] [COMPONENT c])
# Installs TEMPLATE with @VAR@ references expanded at install time. Beside the project's
# variables, the template sees @PREFIX@, @BINDIR@, @LIBEXECDIR@ (the project's folder in it),
# @PICKERDIR@, @DATADIR@, @LIBDIR@ and @INCLUDEDIR@ as absolute installed paths.
function(lumaro_install_configured template destination)
  cmake_parse_arguments(ARG "" "RENAME;COMPONENT" "" ${ARGN})
  get_filename_component(template ${template} ABSOLUTE)
  get_filename_component(name ${template} NAME)
  string(REGEX REPLACE "\\.in$" "" name ${name})
  if(ARG_RENAME)
    set(name ${ARG_RENAME})
  endif()
  if(NOT ARG_COMPONENT)
    set(ARG_COMPONENT ${CMAKE_INSTALL_DEFAULT_COMPONENT_NAME})
  endif()
  install(CODE "
    set(PROJECT_VERSION \"${PROJECT_VERSION}\")
    set(PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
    set(BINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    set(LIBEXECDIR \"\${CMAKE_INSTALL_PREFIX}/${LUMARO_INSTALL_LIBEXECDIR}\")
    set(PICKERDIR \"\${CMAKE_INSTALL_PREFIX}/${LUMARO_INSTALL_PICKERDIR}\")
    set(DATADIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATADIR}\")
    set(LIBDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}\")
    set(INCLUDEDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_INCLUDEDIR}\")
    configure_file(\"${template}\" \"${CMAKE_CURRENT_BINARY_DIR}/installed/${name}\" @ONLY)
    file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${destination}\" TYPE FILE
         FILES \"${CMAKE_CURRENT_BINARY_DIR}/installed/${name}\")"
    COMPONENT ${ARG_COMPONENT})
endfunction()
