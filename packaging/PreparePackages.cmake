# Runs between the installation and the making of the packages: pages and changelogs are compressed, archives lose what only a
# debugger reads.
file(GLOB pages ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/man*/*.[1-9] ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/doc/*/changelog)
foreach(page IN LISTS pages)
  execute_process(COMMAND gzip -9n ${page} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
file(GLOB_RECURSE archives ${CPACK_TEMPORARY_DIRECTORY}/*.a)
foreach(archive IN LISTS archives)
  execute_process(COMMAND strip --strip-debug --enable-deterministic-archives ${archive} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
