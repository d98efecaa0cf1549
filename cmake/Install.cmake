# Install rules, the CMake package, the pkg-config files and the Debian packages (CPack).
#
# Components, one Debian package each:
#   runtime           libNotificationDatabase.so.1                        libnotificationdatabase1
#   development       headers, .so link, CMake package, pkg-config file,  libnotificationdatabase-dev
#                     the API reference (with NOTIFICATIONDB_BUILD_DOCS)
#   tool              the notificationdb tool and what comes with it       notificationdb
#   glib_runtime      libNotificationDatabaseGLib.so.1                    libnotificationdatabaseglib1
#   glib_development  its header, .so link, CMake component, .pc file      libnotificationdatabaseglib-dev
#   qt_runtime        libNotificationDatabaseQt.so.1                      libnotificationdatabaseqt1
#   qt_development    its headers, .so link, CMake component, .pc file     libnotificationdatabaseqt-dev

set(NDB_PACKAGE_runtime libnotificationdatabase${NOTIFICATIONDB_ABI_VERSION})
set(NDB_PACKAGE_development libnotificationdatabase-dev)
set(NDB_PACKAGE_tool notificationdb)
set(NDB_PACKAGE_glib_runtime libnotificationdatabaseglib${NOTIFICATIONDB_ABI_VERSION})
set(NDB_PACKAGE_glib_development libnotificationdatabaseglib-dev)
set(NDB_PACKAGE_qt_runtime libnotificationdatabaseqt${NOTIFICATIONDB_ABI_VERSION})
set(NDB_PACKAGE_qt_development libnotificationdatabaseqt-dev)

set(NDB_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/NotificationDatabase)
set(NDB_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

foreach(header ${NDB_PUBLIC_HEADERS})
    file(RELATIVE_PATH relative ${NDB_SOURCE_ROOT} ${header})
    get_filename_component(directory ${relative} DIRECTORY)
    install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${directory} COMPONENT development)
endforeach()
install(FILES ${NDB_GENERATED_ROOT}/NotificationDatabase/VersionMacros.hpp
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/NotificationDatabase COMPONENT development)
install(TARGETS NotificationDatabase
    EXPORT NotificationDatabaseTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT NotificationDatabaseTargets
    FILE NotificationDatabaseTargets.cmake
    NAMESPACE NotificationDatabase::
    DESTINATION ${NDB_CMAKE_DIR}
    COMPONENT development)
configure_package_config_file(cmake/NotificationDatabaseConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/NotificationDatabaseConfig.cmake
    INSTALL_DESTINATION ${NDB_CMAKE_DIR})
write_basic_package_version_file(
    ${CMAKE_CURRENT_BINARY_DIR}/NotificationDatabaseConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/NotificationDatabaseConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/NotificationDatabaseConfigVersion.cmake
    DESTINATION ${NDB_CMAKE_DIR}
    COMPONENT development)

# The .pc files find the prefix from their own place, so an installed tree can be moved. In the
# system prefix they name it, so that pkg-config drops the system directories from its output
# instead of printing them spelt another way (-I/usr/lib/x86_64-linux-gnu/pkgconfig/../../../include).
if(IS_ABSOLUTE "${NDB_PKGCONFIG_DIR}" OR CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(NDB_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
    file(RELATIVE_PATH _ndb_pc_up "/prefix/${NDB_PKGCONFIG_DIR}" "/prefix")
    string(REGEX REPLACE "/$" "" _ndb_pc_up "${_ndb_pc_up}")
    set(NDB_PC_PREFIX "\${pcfiledir}/${_ndb_pc_up}")
endif()
foreach(kind LIBDIR INCLUDEDIR)
    if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
        set(NDB_PC_${kind} "${CMAKE_INSTALL_${kind}}")
    else()
        set(NDB_PC_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
    endif()
endforeach()
configure_file(cmake/NotificationDatabase.pc.in ${CMAKE_CURRENT_BINARY_DIR}/NotificationDatabase.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/NotificationDatabase.pc DESTINATION ${NDB_PKGCONFIG_DIR} COMPONENT development)
if(NOTIFICATIONDB_BUILD_DOCS)
    # The API reference, registered with doc-base so that documentation browsers list it.
    set(NDB_DOCS_INSTALL_DIR ${CMAKE_INSTALL_FULL_DATAROOTDIR}/doc/${NDB_PACKAGE_development}/html)
    install(DIRECTORY ${NDB_DOCS_DIR}/html/ DESTINATION ${NDB_DOCS_INSTALL_DIR} COMPONENT development)
    configure_file(cmake/doc-base.in ${CMAKE_CURRENT_BINARY_DIR}/doc-base @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/doc-base DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc-base
        RENAME ${NDB_PACKAGE_development}-api COMPONENT development)
endif()

# The packages' components, in order.
set(_ndb_components runtime development)
if(TARGET notificationdb)
    list(APPEND _ndb_components tool)
endif()

# The adapters: NotificationDatabase<Name> with its headers in NotificationDatabase/<Name>/, the
# CMake component <Name>, NotificationDatabase<Name>.pc, and the components <prefix>_runtime and
# <prefix>_development.
foreach(_ndb_adapter GLib Qt)
    if(NOT TARGET NotificationDatabase${_ndb_adapter})
        continue()
    endif()
    string(TOLOWER ${_ndb_adapter} _ndb_prefix)
    string(TOUPPER ${_ndb_adapter} _ndb_upper)
    install(FILES ${NDB_${_ndb_upper}_PUBLIC_HEADERS}
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/NotificationDatabase/${_ndb_adapter} COMPONENT ${_ndb_prefix}_development)
    install(TARGETS NotificationDatabase${_ndb_adapter}
        EXPORT NotificationDatabase${_ndb_adapter}Targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
            COMPONENT ${_ndb_prefix}_runtime NAMELINK_COMPONENT ${_ndb_prefix}_development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${_ndb_prefix}_development
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${_ndb_prefix}_runtime
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
    install(EXPORT NotificationDatabase${_ndb_adapter}Targets
        FILE NotificationDatabase${_ndb_adapter}Targets.cmake
        NAMESPACE NotificationDatabase::
        DESTINATION ${NDB_CMAKE_DIR}
        COMPONENT ${_ndb_prefix}_development)
    configure_file(cmake/NotificationDatabase${_ndb_adapter}.pc.in
        ${CMAKE_CURRENT_BINARY_DIR}/NotificationDatabase${_ndb_adapter}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/NotificationDatabase${_ndb_adapter}.pc
        DESTINATION ${NDB_PKGCONFIG_DIR} COMPONENT ${_ndb_prefix}_development)
    list(APPEND _ndb_components ${_ndb_prefix}_runtime ${_ndb_prefix}_development)
endforeach()

# Each package carries the license and the Debian changelog, where Debian looks for them; the
# changelog's latest entry must be this release.
file(STRINGS cmake/debian-changelog _ndb_changelog_head LIMIT_COUNT 1)
if(NOT _ndb_changelog_head MATCHES "^[a-z0-9.+-]+ \\(${PROJECT_VERSION}\\) ")
    message(FATAL_ERROR "cmake/debian-changelog has no entry for ${PROJECT_VERSION} at its top: ${_ndb_changelog_head}")
endif()
find_program(NOTIFICATIONDB_GZIP gzip REQUIRED)
set(NDB_CHANGELOG ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz)
add_custom_command(OUTPUT ${NDB_CHANGELOG}
    COMMAND ${CMAKE_COMMAND} -E copy ${CMAKE_CURRENT_SOURCE_DIR}/cmake/debian-changelog ${CMAKE_CURRENT_BINARY_DIR}/changelog
    COMMAND ${NOTIFICATIONDB_GZIP} -9nf ${CMAKE_CURRENT_BINARY_DIR}/changelog
    DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/cmake/debian-changelog
    VERBATIM)
add_custom_target(notificationdb_changelog ALL DEPENDS ${NDB_CHANGELOG})
foreach(component IN LISTS _ndb_components)
    install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${NDB_PACKAGE_${component}}
        RENAME copyright COMPONENT ${component})
    install(FILES ${NDB_CHANGELOG} DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${NDB_PACKAGE_${component}}
        COMPONENT ${component})
endforeach()

include(cmake/Packaging.cmake)
