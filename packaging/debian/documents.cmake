# cpack runs this on the files of the three packages before it packs them. It adds the documents that every package
# contains, and compresses what Debian wants compressed.
foreach(pair runtime:libcloudtunnel1 development:libcloudtunnel-dev tools:cloudtunnel-tools)
  string(REPLACE ":" ";" pair ${pair})
  list(GET pair 0 component)
  list(GET pair 1 package)
  set(usr ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component}/usr)
  set(doc ${usr}/share/doc/${package})
  file(MAKE_DIRECTORY ${doc})
  file(COPY ${CPACK_CLOUDTUNNEL_DOCUMENTS}/ DESTINATION ${doc}
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  file(GLOB pages ${usr}/share/man/*/*)
  execute_process(COMMAND gzip -9n ${doc}/changelog ${doc}/changelog.Debian ${pages} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
