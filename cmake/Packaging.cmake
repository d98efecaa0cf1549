# Debian packages with CPack: `cpack -G DEB` in a build configured with CMAKE_INSTALL_PREFIX=/usr
# (the "package" preset; `./dev package` does both, with the compiler and linker flags of
# dpkg-buildflags). One package per install component; the runtime dependencies on system
# libraries come from dpkg-shlibdeps (package dpkg-dev). DebianPackages.cmake then mends what
# CPack does not do as Debian wants it.

set(NOTIFICATIONDB_PACKAGE_MAINTAINER
    "The NotificationDatabase developers <maintainers@users.noreply.c-seed-e2132480.example>"
    CACHE STRING "Maintainer field of the Debian packages")

set(CPACK_PACKAGE_NAME notificationdb)
set(CPACK_PACKAGE_VENDOR "The NotificationDatabase developers")
set(CPACK_PACKAGE_CONTACT "${NOTIFICATIONDB_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# Each package's description, its first line the synopsis, comes from its component below.
# CPackDeb puts the project's summary before it unless the summary is CPack's default one.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${CMAKE_PROJECT_NAME} built using CMake")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_GENERATOR DEB)
set(CPACK_STRIP_FILES ON)

# Only these become packages, so nothing installed without a component slips into one.
set(CPACK_COMPONENTS_ALL ${_ndb_components})

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE notificationdatabase)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/DebianPackages.cmake)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tool and the GLib adapter link the library of this build, which dpkg-shlibdeps must
# find; their dependency on its package comes from the component dependencies below.
# (Both libraries are built at the top of the build tree.)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${NDB_PACKAGE_runtime})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# dpkg-shlibdeps sees the oldest SQLite with the functions the library calls; the options it
# sets need a newer one (DebianPackages.cmake keeps the stricter of the two).
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libsqlite3-0 (>= ${NOTIFICATIONDB_SQLITE_MINIMUM})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${NDB_PACKAGE_development})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
# The .pc file names sqlite3 and libsystemd (Requires.private), and a static host links them.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libsqlite3-dev (>= ${NOTIFICATIONDB_SQLITE_MINIMUM}), libsystemd-dev")
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME ${NDB_PACKAGE_tool})
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_GLIB_RUNTIME_PACKAGE_NAME ${NDB_PACKAGE_glib_runtime})
set(CPACK_DEBIAN_GLIB_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_GLIB_DEVELOPMENT_PACKAGE_NAME ${NDB_PACKAGE_glib_development})
set(CPACK_DEBIAN_GLIB_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_GLIB_DEVELOPMENT_PACKAGE_DEPENDS "libglib2.0-dev")
set(CPACK_DEBIAN_QT_RUNTIME_PACKAGE_NAME ${NDB_PACKAGE_qt_runtime})
set(CPACK_DEBIAN_QT_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_QT_DEVELOPMENT_PACKAGE_NAME ${NDB_PACKAGE_qt_development})
set(CPACK_DEBIAN_QT_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_QT_DEVELOPMENT_PACKAGE_DEPENDS "qt6-base-dev")

include(CPack)

cpack_add_component(runtime DISPLAY_NAME "NotificationDatabase library"
    DESCRIPTION "store of in-app notifications shared by the processes of one user
A desktop client keeps its in-app notifications in an SQLite database in
the user's data directory, and every process of the user hears about
changes through a D-Bus session-bus signal.")
cpack_add_component(development DISPLAY_NAME "NotificationDatabase development files" DEPENDS runtime
    DESCRIPTION "development files of the NotificationDatabase library
Headers, CMake package (find_package(NotificationDatabase)) and pkg-config
file (NotificationDatabase) for building hosts of the notification store
in C++20.")
if(tool IN_LIST _ndb_components)
    cpack_add_component(tool DISPLAY_NAME "notificationdb tool" DEPENDS runtime
        DESCRIPTION "command-line tool of the NotificationDatabase notification store
notificationdb lists, receives, marks and deletes stored notifications and
watches the change notices, for trying the library and debugging a host.")
endif()
if(glib_runtime IN_LIST _ndb_components)
    cpack_add_component(glib_runtime DISPLAY_NAME "NotificationDatabase GLib adapter" DEPENDS runtime
        DESCRIPTION "GLib main-loop adapter of the NotificationDatabase library
Runs the notification store's change notices, and the notices a process
observes, in a GLib main context.")
    cpack_add_component(glib_development DISPLAY_NAME "NotificationDatabase GLib adapter development files"
        DEPENDS glib_runtime development
        DESCRIPTION "development files of the NotificationDatabase GLib adapter
Header, CMake component (find_package(NotificationDatabase COMPONENTS GLib))
and pkg-config file (NotificationDatabaseGLib).")
endif()
if(qt_runtime IN_LIST _ndb_components)
    cpack_add_component(qt_runtime DISPLAY_NAME "NotificationDatabase Qt adapter" DEPENDS runtime
        DESCRIPTION "Qt event-loop adapter of the NotificationDatabase library
Runs the notification store's change notices, and the notices a process
observes, in a Qt event loop, and emits a Qt signal for every change
notice of any process of the user.")
    cpack_add_component(qt_development DISPLAY_NAME "NotificationDatabase Qt adapter development files"
        DEPENDS qt_runtime development
        DESCRIPTION "development files of the NotificationDatabase Qt adapter
Headers, CMake component (find_package(NotificationDatabase COMPONENTS Qt))
and pkg-config file (NotificationDatabaseQt).")
endif()
