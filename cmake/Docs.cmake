# The API reference: Doxygen (Debian: doxygen) over the public headers, the same list the install
# rules use, written to <build>/docs/html by the target notificationdb_docs (`./dev docs`). With
# NOTIFICATIONDB_BUILD_DOCS it is part of every build and installed with the development files
# (cmake/Install.cmake).

find_package(Doxygen QUIET)
if(NOT DOXYGEN_FOUND)
    if(NOTIFICATIONDB_BUILD_DOCS)
        message(FATAL_ERROR "NOTIFICATIONDB_BUILD_DOCS needs Doxygen (Debian: doxygen)")
    endif()
    return()
endif()

set(NDB_DOCS_DIR ${PROJECT_BINARY_DIR}/docs)
set(NDB_DOCS_HEADERS ${NDB_PUBLIC_HEADERS} ${NDB_GENERATED_ROOT}/NotificationDatabase/VersionMacros.hpp
    ${NDB_GLIB_PUBLIC_HEADERS} ${NDB_QT_PUBLIC_HEADERS})
list(SORT NDB_DOCS_HEADERS)
list(JOIN NDB_DOCS_HEADERS "\" \\\n    \"" NDB_DOCS_INPUT)
set(NDB_DOCS_INPUT "\"${NDB_DOCS_INPUT}\"")
set(NDB_DOCS_ROOTS "\"${NDB_SOURCE_ROOT}\" \"${NDB_GENERATED_ROOT}\" \"${PROJECT_SOURCE_DIR}/Modules/NotificationDatabaseGLib/Sources\" \"${PROJECT_SOURCE_DIR}/Modules/NotificationDatabaseQt/Sources\"")
configure_file(cmake/Doxyfile.in ${NDB_DOCS_DIR}/Doxyfile @ONLY)

set(_ndb_docs_all)
if(NOTIFICATIONDB_BUILD_DOCS)
    set(_ndb_docs_all ALL)
endif()
add_custom_command(OUTPUT ${NDB_DOCS_DIR}/html/index.html
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${NDB_DOCS_DIR}/html
    COMMAND Doxygen::doxygen ${NDB_DOCS_DIR}/Doxyfile
    DEPENDS ${NDB_DOCS_HEADERS} ${NDB_DOCS_DIR}/Doxyfile
    WORKING_DIRECTORY ${NDB_DOCS_DIR}
    COMMENT "Writing the API reference with Doxygen"
    VERBATIM)
add_custom_target(notificationdb_docs ${_ndb_docs_all} DEPENDS ${NDB_DOCS_DIR}/html/index.html)
