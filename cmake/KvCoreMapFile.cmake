# kvcore_add_map_file(target): named stack dumps for an executable.
#
# Builds the target with frame pointers, links it without position
# independence (so that its code lies below 4 GiB, where the 32-bit addresses
# of a dump name it), and after every link writes <name>.map beside it from its
# symbol table with `kvtool mapfile`: the map file that CStackWriter reads
# when none is injected. Usable in the source tree and from the installed package.
# kv_fixed_address(target): links an executable to load at a fixed address
# below 4 GiB: without position independence (ELF), or at the image base
# 0x400000 without address-space randomisation (Windows).
function(kv_fixed_address target)
  if(WIN32)
    target_link_options(${target} PRIVATE -Wl,--image-base=0x400000 -Wl,--disable-dynamicbase
                                          -Wl,--disable-high-entropy-va)
  else()
    set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE OFF)
    target_link_options(${target} PRIVATE -no-pie)
  endif()
endfunction()

function(kvcore_add_map_file target)
  get_target_property(_kv_type ${target} TYPE)
  if(NOT _kv_type STREQUAL "EXECUTABLE")
    message(FATAL_ERROR "kvcore_add_map_file: ${target} is not an executable")
  endif()
  if(TARGET SystemKvCore::kvtool)
    set(_kv_tool SystemKvCore::kvtool)
  elseif(TARGET kvtool)
    set(_kv_tool kvtool)
    add_dependencies(${target} kvtool)
  else()
    message(FATAL_ERROR "kvcore_add_map_file: no kvtool target (find_package(SystemKvCore) provides one)")
  endif()
  target_compile_options(${target} PRIVATE -fno-omit-frame-pointer)
  kv_fixed_address(${target})
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${_kv_tool} mapfile $<TARGET_FILE:${target}>
            -o $<TARGET_FILE_DIR:${target}>/$<TARGET_FILE_BASE_NAME:${target}>.map
    COMMENT "Writing the map file of ${target}"
    VERBATIM)
endfunction()
