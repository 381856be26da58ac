# All objects of all layers of the service, linked by the C driver: what nobody calls yet is dropped
# from the service itself, and with it the proof that it needs no C++ run-time library. The build is
# the test.
get_property(layers GLOBAL PROPERTY CORVO_LAYERS)
list(TRANSFORM layers REPLACE "(.+)" "$<TARGET_OBJECTS:\\1>" OUTPUT_VARIABLE layer_objects)
corvo_program(whole_layers SOURCES support/whole_layers.cpp ${layer_objects}
              LINK base platform PkgConfig::NANOMSG)
set_target_properties(whole_layers PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
target_link_options(whole_layers PRIVATE -Wl,--no-gc-sections)
