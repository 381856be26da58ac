# The checks of scripts/board that need a program on the board. Only a build for its processor has
# a use for it.
if(CMAKE_CROSSCOMPILING)
  add_executable(board_probe board/board_probe.cpp)
  target_link_libraries(board_probe PRIVATE pal hal_interfaces hal_flash hal_led hal_nv base)
  set_target_properties(board_probe PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
endif()
