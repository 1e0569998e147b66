# Fails when the command's file tools call into SQLite, GLib/GIO or libplist
# themselves: those come with the helper's control surface, not with `cat`.
# Run by ctest as
#   cmake -DNM=<nm> -DLIBRARY=<libzephlore_cli_files.a> -P CheckFileToolsLinks.cmake
execute_process(COMMAND ${NM} --undefined-only --format=just-symbols ${LIBRARY}
                OUTPUT_VARIABLE symbols RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()
string(REGEX MATCHALL "(^|\n)(sqlite3_|g_|plist_)[A-Za-z0-9_]*" found "${symbols}")
if(found)
  string(REPLACE "\n" " " found "${found}")
  message(FATAL_ERROR "The file tools use the helper's libraries:${found}")
endif()
message(STATUS "The file tools use no SQLite, GLib or libplist symbols")
