# SPDX-License-Identifier: Apache-2.0

# Puts text files into a C++ source, so that a program carries them.
#
# vs_embed_text(OUTPUT file VARIABLE name HEADER header PIECES file...)
#
# Generates OUTPUT, which defines the global `const char* name` of the namespace videostabilizer:
# the pieces, in order, joined by " \n ". HEADER declares it. The generated file follows its pieces:
# it is made anew when one of them changes.

# Run as a script by the build: the second half of vs_embed_text.
if(CMAKE_SCRIPT_MODE_FILE STREQUAL CMAKE_CURRENT_LIST_FILE)
  set(literals "")
  set(separator "")
  foreach(piece IN LISTS PIECES)
    file(READ "${piece}" text)
    string(APPEND literals "${separator}    R\"TEXT(${text})TEXT\"")
    set(separator "\n    \" \\n \"\n")
  endforeach()
  file(WRITE "${OUTPUT}" "#include \"${HEADER}\"

namespace videostabilizer {

const char* ${VARIABLE} =
${literals};

}  // namespace videostabilizer
")
  return()
endif()

set(VS_EMBED_TEXT_SCRIPT ${CMAKE_CURRENT_LIST_FILE})

function(vs_embed_text)
  cmake_parse_arguments(arg "" "OUTPUT;VARIABLE;HEADER" "PIECES" ${ARGN})
  list(TRANSFORM arg_PIECES PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  add_custom_command(
    OUTPUT ${arg_OUTPUT}
    COMMAND ${CMAKE_COMMAND} "-DPIECES=${arg_PIECES}" -DVARIABLE=${arg_VARIABLE}
      -DHEADER=${arg_HEADER} -DOUTPUT=${arg_OUTPUT} -P ${VS_EMBED_TEXT_SCRIPT}
    DEPENDS ${arg_PIECES} ${VS_EMBED_TEXT_SCRIPT}
    COMMENT "Embedding ${arg_VARIABLE}"
    VERBATIM)
endfunction()
