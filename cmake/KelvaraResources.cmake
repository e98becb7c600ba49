# Two functions that copy KelvaraResources.bundle to the executable's folder of a host. The SDK
# searches that folder first, unless the host sets another main bundle. A host without a copy uses
# the bundle in the library's data folder.

# kelvara_embed_resources(target) copies it next to the executable in the build tree.
function(kelvara_embed_resources target)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${CMAKE_COMMAND} -E copy_directory
      $<TARGET_PROPERTY:Kelvara::Kelvara,KELVARA_RESOURCE_BUNDLE>
      $<TARGET_FILE_DIR:${target}>/KelvaraResources.bundle
    COMMENT "Embedding KelvaraResources.bundle beside ${target}" VERBATIM)
endfunction()

# kelvara_install_resources(folder) installs it to `folder`, the DESTINATION of the host's executable,
# such as ${CMAKE_INSTALL_BINDIR}.
function(kelvara_install_resources folder)
  install(DIRECTORY $<TARGET_PROPERTY:Kelvara::Kelvara,KELVARA_RESOURCE_BUNDLE>/
    DESTINATION ${folder}/KelvaraResources.bundle)
endfunction()
