# Run by CPack between installing and packing: adds what Debian wants in a package and
# "cmake --install" does not put on a machine, and compresses what it wants compressed.
set(documents ${CPACK_TEMPORARY_DIRECTORY}/usr/share/doc/vzdefrag)
file(COPY ${CMAKE_CURRENT_LIST_DIR}/copyright ${CMAKE_CURRENT_LIST_DIR}/changelog
    DESTINATION ${documents}
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
file(GLOB manuals ${CPACK_TEMPORARY_DIRECTORY}/usr/share/man/man*/*)
execute_process(COMMAND gzip -9nf ${documents}/changelog ${manuals} COMMAND_ERROR_IS_FATAL ANY)
