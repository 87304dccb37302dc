# Run by cpack on the staged files. For reproducible packages, all files get the date of the changelog's last
# entry, unless SOURCE_DATE_EPOCH is set.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
    file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/debian/changelog LAST REGEX "^ -- " LIMIT_COUNT 1)
    string(REGEX REPLACE "^.*>  " "" LAST "${LAST}")
    execute_process(COMMAND date --date=${LAST} +%s OUTPUT_VARIABLE LAST OUTPUT_STRIP_TRAILING_WHITESPACE
        COMMAND_ERROR_IS_FATAL ANY)
    set(ENV{SOURCE_DATE_EPOCH} ${LAST})
endif()

# Compresses manual pages and changelogs, as required by Debian, and lets links between pages point to the
# compressed pages.
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

execute_process(
    COMMAND find ${CPACK_TEMPORARY_DIRECTORY} -exec touch --no-dereference --date=@$ENV{SOURCE_DATE_EPOCH} {} +
    COMMAND_ERROR_IS_FATAL ANY)
