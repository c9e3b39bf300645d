# cmake -DCATALOGUE=tesk.cpp -DTEMPLATE=orvo.lua.in -DOUTPUT=orvo.lua -P this
# Takes every {0xNNNNNN, "NAME"} entry of the catalogue into a Lua table.
file(STRINGS ${CATALOGUE} lines REGEX "^[ \t]*\\{0x[0-9A-Fa-f]+, *\"[A-Za-z0-9_]+\"\\}")
set(ORVO_MSG_NAMES "")
set(count 0)
foreach(line IN LISTS lines)
  string(REGEX REPLACE "^[ \t]*\\{(0x[0-9A-Fa-f]+), *\"([A-Za-z0-9_]+)\"\\}.*" "    [\\1] = \"\\2\",\n" entry "${line}")
  string(APPEND ORVO_MSG_NAMES "${entry}")
  math(EXPR count "${count} + 1")
endforeach()
if(count LESS 10)
  message(FATAL_ERROR "${CATALOGUE}: only ${count} message type names found")
endif()
configure_file(${TEMPLATE} ${OUTPUT} @ONLY)
