# Runs when cpack has collected the files of each package: adds what Debian asks of every package.
function(run)
    execute_process(COMMAND ${ARGV} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

execute_process(COMMAND date -u -R -d "@$ENV{SOURCE_DATE_EPOCH}"
    OUTPUT_VARIABLE date OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
set(permissions OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
set(version "${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER "${component}" upper)
    set(package "${CPACK_DEBIAN_${upper}_PACKAGE_NAME}")
    set(root "${CPACK_TEMPORARY_DIRECTORY}/${component}")
    set(documents "${root}/usr/share/doc/${package}")
    file(COPY "${CPACK_TDMBREC_SOURCES}/copyright" DESTINATION "${documents}"
        FILE_PERMISSIONS ${permissions})
    configure_file("${CPACK_TDMBREC_SOURCES}/changelog.in" "${documents}/changelog.Debian" @ONLY
        FILE_PERMISSIONS ${permissions})
    if(EXISTS "${documents}/CHANGELOG.md")
        file(RENAME "${documents}/CHANGELOG.md" "${documents}/changelog")
    endif()
    file(GLOB_RECURSE texts "${documents}/changelog*" "${root}/usr/share/man/*.1")
    run(gzip -9 -n ${texts})
    run(find "${root}" -type d -exec chmod 755 {} +) # whatever the umask
endforeach()
