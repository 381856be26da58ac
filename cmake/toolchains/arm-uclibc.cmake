set(SMALL_LIBRARY uclibc)
include(${CMAKE_CURRENT_LIST_DIR}/small_library.cmake)
