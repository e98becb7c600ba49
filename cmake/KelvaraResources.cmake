# Two ways to give a host its own copy of KelvaraResources.bundle, in the executable's folder, where
# the SDK looks first unless the host names another main bundle. A host without a copy uses the one
# in the library's own data folder.

# kelvara_embed_resources(target): beside the executable in the build tree.
function(kelvara_embed_resources target)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${CMAKE_COMMAND} -E copy_directory
      $<TARGET_PROPERTY:Kelvara::Kelvara,KELVARA_RESOURCE_BUNDLE>
      $<TARGET_FILE_DIR:${target}>/KelvaraResources.bundle
    COMMENT "Embedding KelvaraResources.bundle beside ${target}" VERBATIM)
endfunction()

# kelvara_install_resources(folder): into `folder` when the host is installed, which is the
# DESTINATION of its executable, such as ${CMAKE_INSTALL_BINDIR}.
function(kelvara_install_resources folder)
  install(DIRECTORY $<TARGET_PROPERTY:Kelvara::Kelvara,KELVARA_RESOURCE_BUNDLE>/
    DESTINATION ${folder}/KelvaraResources.bundle)
endfunction()
