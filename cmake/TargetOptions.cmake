# quarvel_apply_target_options(DIR): gives every target this project defines
# in DIR and below its warnings, and the sanitizers and fuzzer
# instrumentation the build asked for. Called once, after every
# subdirectory, so that no target is missed and nothing outside is touched.
function(quarvel_apply_target_options dir)
  get_property(targets DIRECTORY "${dir}" PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target IN LISTS targets)
    get_target_property(type ${target} TYPE)
    if(type MATCHES "^(EXECUTABLE|STATIC_LIBRARY|SHARED_LIBRARY|MODULE_LIBRARY|OBJECT_LIBRARY)$")
      target_compile_options(${target} PRIVATE -Wall -Wextra)
      if(QUARVEL_BUILD_FUZZERS)
        target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
      endif()
      if(QUARVEL_SANITIZE)
        target_compile_options(${target} PRIVATE
          -fsanitize=${QUARVEL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
        if(NOT type MATCHES "^(STATIC_LIBRARY|OBJECT_LIBRARY)$")
          target_link_options(${target} PRIVATE -fsanitize=${QUARVEL_SANITIZE})
        endif()
      endif()
    endif()
  endforeach()
  get_property(subdirs DIRECTORY "${dir}" PROPERTY SUBDIRECTORIES)
  foreach(subdir IN LISTS subdirs)
    quarvel_apply_target_options("${subdir}")
  endforeach()
endfunction()
