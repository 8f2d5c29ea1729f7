# Embedded resources: every file of the resources/ folder becomes a byte array
# in the library under its lower-cased file name. The table is regenerated when
# a resource changes; adding or removing a file re-runs the configuration.
function(kv_embed_resources target dir)
  file(GLOB resources CONFIGURE_DEPENDS LIST_DIRECTORIES false "${dir}/*")
  list(SORT resources)
  set(names "")
  foreach(resource ${resources})
    get_filename_component(name "${resource}" NAME)
    string(TOLOWER "${name}" lower)
    if(lower IN_LIST names)
      message(FATAL_ERROR "resources: two files are both named '${lower}' when lower-cased")
    endif()
    list(APPEND names "${lower}")
  endforeach()
  # The list of names goes into the command line, so that adding or removing a
  # file (which changes the list) regenerates the table as well.
  string(MD5 listHash "${names}")
  set(output "${CMAKE_CURRENT_BINARY_DIR}/kv_resources.cpp")
  add_custom_command(
    OUTPUT "${output}"
    COMMAND ${CMAKE_COMMAND} "-DOUTPUT=${output}" "-DDIR=${dir}" "-DLIST_HASH=${listHash}"
            -P "${PROJECT_SOURCE_DIR}/cmake/KvResourcesGenerate.cmake"
    DEPENDS ${resources} "${PROJECT_SOURCE_DIR}/cmake/KvResourcesGenerate.cmake"
    COMMENT "Embedding ${dir}"
    VERBATIM)
  target_sources(${target} PRIVATE "${output}")
endfunction()
