# Faults behind the system calls of whatever a program links: see support/faults.h.
add_library(test_faults STATIC support/faults.cpp)
target_link_libraries(test_faults PUBLIC test_support)
foreach(call open open64 fopen fopen64 lseek lseek64 fstat fstat64 read write ioctl fdatasync select
        usleep)
  target_link_options(test_faults INTERFACE -Wl,--wrap=${call})
endforeach()

corvo_test(flash_test SOURCES flash_test.cpp LINK test_faults pal hal_flash)
target_include_directories(flash_test PRIVATE ${PROJECT_SOURCE_DIR}/hal/flash)
corvo_test(led_gpio_test SOURCES led_gpio_test.cpp LINK test_faults hal_led hal_gpio)
target_include_directories(led_gpio_test PRIVATE ${PROJECT_SOURCE_DIR}/hal/led)

# The daemon's client is played by the test, which defines the two calls that the upgrade module
# makes: it must not be linked in beside them.
corvo_test(pal_hal_test SOURCES pal_hal_test.cpp LINK test_faults pal hal_interfaces)
target_include_directories(pal_hal_test PRIVATE ${PROJECT_SOURCE_DIR}/pal)
