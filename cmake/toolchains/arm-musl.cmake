set(SMALL_LIBRARY musl)
include(${CMAKE_CURRENT_LIST_DIR}/small_library.cmake)
