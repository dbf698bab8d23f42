# Writes the version text with a stamp of who built it, where and when.
# Run at build time; SOURCE_DATE_EPOCH, when set, fixes the date.
execute_process(COMMAND id -un OUTPUT_VARIABLE user OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
if(NOT user)
  set(user "unknown")
endif()
cmake_host_system_information(RESULT host QUERY HOSTNAME)
if(NOT host)
  set(host "unknown")
endif()
string(TIMESTAMP when "%Y-%m-%d %H:%M:%S")
# The version comes from the project() call; the text writes the patch
# level with two digits (1.1.1 reads "V1.1.01").
# Builds that are not the library's own (the fuzz targets) pass none: read it
# from the project() call then.
if(NOT VERSION)
  file(STRINGS "${CMAKE_CURRENT_LIST_DIR}/../CMakeLists.txt" project_line REGEX "^project\\(QuillaneUtil VERSION ")
  string(REGEX REPLACE "^project\\(QuillaneUtil VERSION ([0-9.]+) .*" "\\1" VERSION "${project_line}")
endif()
string(REPLACE "." ";" parts "${VERSION}")
list(GET parts 0 major)
list(GET parts 1 minor)
list(GET parts 2 patch)
if(patch LESS 10)
  set(patch "0${patch}")
endif()
set(text "QuillaneUtil Version:V${major}.${minor}.${patch}, SVN:28 [Build:${user}@${host} ${when}]")
file(WRITE "${OUT}.tmp" "// Generated at build time.\n#include \"core/util_version.h\"\n\nextern const char util_version_text[] = \"${text}\";\n")
file(COPY_FILE "${OUT}.tmp" "${OUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUT}.tmp")
