# The Lua capture dissector: its table of message type names is written from
# the catalogue (tesk/tesk.cpp) at build time, so the two cannot disagree.
set(ORVO_DISSECTOR ${CMAKE_BINARY_DIR}/share/orvo/orvo.lua)
add_custom_command(OUTPUT ${ORVO_DISSECTOR}
  COMMAND ${CMAKE_COMMAND}
          -DCATALOGUE=${PROJECT_SOURCE_DIR}/tesk/tesk.cpp
          -DTEMPLATE=${PROJECT_SOURCE_DIR}/tools/dissector/orvo.lua.in
          -DOUTPUT=${ORVO_DISSECTOR}
          -P ${PROJECT_SOURCE_DIR}/cmake/orvo_dissector_gen.cmake
  DEPENDS ${PROJECT_SOURCE_DIR}/tesk/tesk.cpp
          ${PROJECT_SOURCE_DIR}/tools/dissector/orvo.lua.in
          ${PROJECT_SOURCE_DIR}/cmake/orvo_dissector_gen.cmake
  COMMENT "Writing the capture dissector with the catalogue's names")
add_custom_target(orvo_dissector ALL DEPENDS ${ORVO_DISSECTOR})
install(FILES ${ORVO_DISSECTOR} DESTINATION ${CMAKE_INSTALL_DATADIR}/orvo COMPONENT tools)
