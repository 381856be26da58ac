if(NOT CMAKE_CROSSCOMPILING)  # strace cannot trace emulated programs
  corvo_test(commit_test SOURCES commit_test.cpp support/forgetful_storage.cpp support/session.cpp
             LINK commit_procedure ota_request TIMEOUT 300)
  target_compile_definitions(commit_test PRIVATE PROGRAMS="$<TARGET_FILE_DIR:corvo_commit>")
  add_dependencies(commit_test corvo_commit otactl)
endif()
