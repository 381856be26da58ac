# The system calls into which support/faults.h can inject faults, for test programs.
set(calls_with_faults
    open open64 __open_2 __open64_2 fopen fopen64 read __read_chk write lseek lseek64 fstat fstat64 fsync fdatasync sync remove ioctl select
    msgrcv msgctl msgget ftok socket bind listen accept4 connect send opendir calloc pthread_create pthread_cond_timedwait sleep usleep _exit
    posix_fadvise posix_fadvise64)
list(TRANSFORM calls_with_faults PREPEND -Wl,--wrap=)
add_library(test_faults STATIC support/faults.cpp)
target_link_libraries(test_faults PUBLIC test_support)
target_link_options(test_faults INTERFACE ${calls_with_faults})

# The service with the same fault injection. It is in a separate folder and has the same name as the real
# service, because the service prints its name.
corvo_program(corvo_upgrade_with_faults SOURCES ${PROJECT_SOURCE_DIR}/src/ota/main.cpp support/faults.cpp
              LINK ota dbus log platform base)
set_target_properties(corvo_upgrade_with_faults PROPERTIES OUTPUT_NAME corvo_upgrade
                      RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/with_faults)
target_link_options(corvo_upgrade_with_faults PRIVATE ${calls_with_faults} -Wl,--wrap=nanosleep
                    -Wl,--export-dynamic-symbol=Plt_Log_TcpPrint)

corvo_test(led_gpio_test SOURCES led_gpio_test.cpp LINK test_faults hal_led hal_gpio)
target_include_directories(led_gpio_test PRIVATE ${PROJECT_SOURCE_DIR}/src/hal/led)

# The test defines fakes of the two functions of the daemon's client that the upgrade module calls, so the
# client itself must not be linked.
corvo_test(pal_hal_test SOURCES pal_hal_test.cpp LINK test_faults pal hal_led hal_ota hal_nv hal_flash)
target_include_directories(pal_hal_test PRIVATE ${PROJECT_SOURCE_DIR}/src/pal
                                                ${PROJECT_SOURCE_DIR}/src/hal/flash)
