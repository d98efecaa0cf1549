# Run by CPack after it has made the Debian packages (CPACK_POST_BUILD_SCRIPTS): mends in each
# package what CPack 3.25 does not do as Debian policy wants it.
#
# - A library package gets the ldconfig trigger ("activate-noawait ldconfig") in place of the
#   postinst and postrm scripts that call ldconfig, which CPack writes.
# - A package named twice in Depends, by dpkg-shlibdeps and by hand, keeps its stricter
#   ">=" relation alone.
# - Binaries lose the .comment and .note sections, as dh_strip leaves them (CPack's stripping
#   keeps them), and md5sums follows.
#
# Each package is unpacked with dpkg-deb and built again from the mended tree.

find_program(NDB_DPKG_DEB dpkg-deb REQUIRED)
find_program(NDB_DPKG dpkg REQUIRED)
find_program(NDB_OBJCOPY objcopy REQUIRED)

# ndb_merge_depends(OUT DEPENDS): DEPENDS with the weaker of two ">=" relations on one package
# left out; every other relation stays as it was written.
function(ndb_merge_depends out depends)
    string(REPLACE ", " ";" relations "${depends}")
    set(merged)
    foreach(relation IN LISTS relations)
        if(relation MATCHES "^([^ ]+) \\(>= ([^)]+)\\)$")
            set(name "${CMAKE_MATCH_1}")
            set(version "${CMAKE_MATCH_2}")
            set(position 0)
            set(found -1)
            foreach(kept IN LISTS merged)
                if(kept MATCHES "^([^ ]+) \\(>= ([^)]+)\\)$")
                    if(CMAKE_MATCH_1 STREQUAL name)
                        set(found ${position})
                        set(keptVersion "${CMAKE_MATCH_2}")
                    endif()
                endif()
                math(EXPR position "${position} + 1")
            endforeach()
            if(found GREATER_EQUAL 0)
                execute_process(COMMAND ${NDB_DPKG} --compare-versions "${version}" gt "${keptVersion}"
                    RESULT_VARIABLE keptIsWeaker)
                if(keptIsWeaker EQUAL 0)
                    list(REMOVE_AT merged ${found})
                    list(INSERT merged ${found} "${relation}")
                endif()
                continue()
            endif()
        endif()
        list(APPEND merged "${relation}")
    endforeach()
    list(JOIN merged ", " merged)
    set(${out} "${merged}" PARENT_SCOPE)
endfunction()

foreach(package IN LISTS CPACK_PACKAGE_FILES)
    get_filename_component(name "${package}" NAME)
    set(tree "${CPACK_TOPLEVEL_DIRECTORY}/mended/${name}")
    file(REMOVE_RECURSE "${tree}")
    file(MAKE_DIRECTORY "${CPACK_TOPLEVEL_DIRECTORY}/mended")
    execute_process(COMMAND ${NDB_DPKG_DEB} --raw-extract "${package}" "${tree}" COMMAND_ERROR_IS_FATAL ANY)

    if(EXISTS "${tree}/DEBIAN/postinst")
        file(READ "${tree}/DEBIAN/postinst" script)
        if(NOT script MATCHES "\tldconfig\n")
            message(FATAL_ERROR "${name}: a postinst that is not CPack's ldconfig call")
        endif()
        file(REMOVE "${tree}/DEBIAN/postinst" "${tree}/DEBIAN/postrm")
        file(WRITE "${tree}/DEBIAN/triggers" "activate-noawait ldconfig\n")
    endif()

    file(READ "${tree}/DEBIAN/md5sums" sums)
    file(GLOB_RECURSE binaries RELATIVE "${tree}" "${tree}/usr/bin/*" "${tree}/usr/lib/*.so.*")
    foreach(binary IN LISTS binaries)
        if(NOT IS_SYMLINK "${tree}/${binary}")
            file(MD5 "${tree}/${binary}" before)
            execute_process(COMMAND ${NDB_OBJCOPY} --remove-section=.comment --remove-section=.note
                "${tree}/${binary}" COMMAND_ERROR_IS_FATAL ANY)
            file(MD5 "${tree}/${binary}" after)
            string(REPLACE "${before}  ${binary}\n" "${after}  ${binary}\n" sums "${sums}")
        endif()
    endforeach()
    file(WRITE "${tree}/DEBIAN/md5sums" "${sums}")

    file(READ "${tree}/DEBIAN/control" control)
    if(control MATCHES "\nDepends: ([^\n]*)")
        set(depends "${CMAKE_MATCH_1}")
        ndb_merge_depends(merged "${depends}")
        string(REPLACE "\nDepends: ${depends}\n" "\nDepends: ${merged}\n" control "${control}")
        file(WRITE "${tree}/DEBIAN/control" "${control}")
    endif()

    execute_process(COMMAND ${NDB_DPKG_DEB} --root-owner-group --build "${tree}" "${package}"
        OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE_RECURSE "${tree}")
endforeach()
