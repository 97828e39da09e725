# Runs when cpack begins.

# Files that are newer than the version get its date.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
    execute_process(COMMAND date -u -d "${CPACK_TDMBREC_DATE}" +%s
        OUTPUT_VARIABLE seconds OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    set(ENV{SOURCE_DATE_EPOCH} "${seconds}")
endif()

# Otherwise the project's description precedes that of each package.
unset(CPACK_PACKAGE_DESCRIPTION_SUMMARY)
