# kelvara_embed_resources(target): puts the SDK's resource bundle beside the executable, where the
# SDK looks for it unless the host names another main bundle.
function(kelvara_embed_resources target)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${CMAKE_COMMAND} -E copy_directory ${KELVARA_RESOURCE_BUNDLE}
      $<TARGET_FILE_DIR:${target}>/KelvaraResources.bundle
    COMMENT "Embedding KelvaraResources.bundle beside ${target}")
endfunction()
