# Fails when a file includes a header of a higher layer. Run by ctest as
#   cmake -DSOURCE_DIR=<repo>/src -P CheckLayers.cmake
# Layers, lowest first; a folder's own subfolders are layers of their own.
# src/testing serves tests only: any test may include it, nothing else may,
# and it builds on base alone.
set(layers base protocol platform engine view
    helper helper/bus helper/settings helper/notices helper/lifecycle helper/history helper/pipeline helper/watching
    desktop pane cli/files cli/control cli preferences)
# Siblings in that order that must not use each other either (a layer stands
# for its subfolders too): the view and the helper both build on the engine;
# the command's file tools need neither the helper nor the desktop (its
# control surface, above them, may use them: what stops a dead view's
# advice is the same for add as for compress), nor the pane's side, which
# the control surface and the window build on. The preference window sits at
# the top beside the command: it uses the pane and what lies below, never the
# command.
set(apart "view|helper" "cli/files|helper" "cli/files|desktop" "cli/files|pane" "cli|preferences")

# Whether `layer` is `top` or one of its subfolders.
function(within layer top out)
  string(FIND "${layer}/" "${top}/" at)
  if(at EQUAL 0)
    set(${out} TRUE PARENT_SCOPE)
  else()
    set(${out} FALSE PARENT_SCOPE)
  endif()
endfunction()

function(layer_of path out)
  set(found "")
  foreach(layer IN LISTS layers ITEMS testing)
    string(LENGTH "${layer}/" n)
    string(SUBSTRING "${path}" 0 ${n} head)
    if(head STREQUAL "${layer}/")
      # helper/history/x.h is helper/history, not helper: keep the longest.
      string(LENGTH "${found}" old)
      string(LENGTH "${layer}" new)
      if(new GREATER old)
        set(found "${layer}")
      endif()
    endif()
  endforeach()
  set(${out} "${found}" PARENT_SCOPE)
endfunction()

file(GLOB_RECURSE files RELATIVE "${SOURCE_DIR}" "${SOURCE_DIR}/*.h" "${SOURCE_DIR}/*.cc")
set(problems "")
foreach(file IN LISTS files)
  layer_of("${file}" own)
  if(own STREQUAL "")
    continue()
  endif()
  string(REGEX MATCH "(_test\\.cc|_for_tests\\.h|test_support\\.h)$" is_test "${file}")
  list(FIND layers "${own}" own_rank)
  file(STRINGS "${SOURCE_DIR}/${file}" includes REGEX "^#include \"[^\"]+\"")
  foreach(line IN LISTS includes)
    string(REGEX REPLACE "^#include \"([^\"]+)\".*" "\\1" header "${line}")
    layer_of("${header}" theirs)
    if(theirs STREQUAL "")
      continue()
    endif()
    if(theirs STREQUAL "testing")
      if(NOT is_test AND NOT own STREQUAL "testing")
        string(APPEND problems "  ${file}: ${header} is for tests only\n")
      endif()
      continue()
    endif()
    list(FIND layers "${theirs}" their_rank)
    if(own STREQUAL "testing")
      if(their_rank GREATER 0)
        string(APPEND problems "  ${file}: test support builds on base alone, not ${theirs}\n")
      endif()
    elseif(their_rank GREATER own_rank)
      string(APPEND problems "  ${file} (${own}) includes ${header} of the higher layer ${theirs}\n")
    else()
      foreach(pair IN LISTS apart)
        string(REPLACE "|" ";" pair "${pair}")
        list(GET pair 0 one)
        list(GET pair 1 other)
        within("${own}" "${one}" own_one)
        within("${own}" "${other}" own_other)
        within("${theirs}" "${one}" theirs_one)
        within("${theirs}" "${other}" theirs_other)
        if((own_one AND theirs_other) OR (own_other AND theirs_one))
          string(APPEND problems "  ${file} (${own}) includes ${header} of ${theirs}, a sibling it must not use\n")
        endif()
      endforeach()
    endif()
  endforeach()
endforeach()

if(problems)
  message(FATAL_ERROR "Layering broken:\n${problems}")
endif()
list(LENGTH files count)
message(STATUS "Layers respected in ${count} files")
