# Run by cpack on the staged files: compresses manual pages and changelogs, as required by Debian, and lets
# links between pages point to the compressed pages.
file(GLOB FILES
    ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/man*/*
    ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/doc/*/changelog.Debian)
foreach(FILE IN LISTS FILES)
    if(IS_SYMLINK ${FILE})
        file(READ_SYMLINK ${FILE} TARGET)
        file(REMOVE ${FILE})
        file(CREATE_LINK ${TARGET}.gz ${FILE}.gz SYMBOLIC)
    else()
        execute_process(COMMAND gzip -9n ${FILE} COMMAND_ERROR_IS_FATAL ANY)
    endif()
endforeach()
