# Links all objects of all layers of the service with the C driver. The linker drops unused functions from the
# service itself, so only this shows that these need no C++ run-time library either. The build is the test.
get_property(layers GLOBAL PROPERTY CORVO_LAYERS)
list(TRANSFORM layers REPLACE "(.+)" "$<TARGET_OBJECTS:\\1>" OUTPUT_VARIABLE layer_objects)
corvo_program(whole_layers SOURCES support/whole_layers.cpp ${layer_objects}
              LINK base platform PkgConfig::NANOMSG)
set_target_properties(whole_layers PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
target_link_options(whole_layers PRIVATE -Wl,--no-gc-sections)
