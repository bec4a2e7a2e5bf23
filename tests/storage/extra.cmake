# Programs that the two test programs of the folder cannot be: a recorder that is killed, and
# a run over a disk image.
set(crash ${CMAKE_CURRENT_SOURCE_DIR}/storage/crash)
if(WIN32)
	set(child ${crash}/win32)
	set(crash_rounds 10)
else()
	set(child ${crash}/posix)
	set(crash_rounds 100)
endif()
add_executable(storage_crash ${crash}/storage_crash.cpp)
target_link_libraries(storage_crash PRIVATE qor GTest::gtest Threads::Threads)
target_include_directories(storage_crash PRIVATE ${CMAKE_CURRENT_SOURCE_DIR} ${child})
qor_target_settings(storage_crash)
add_test(NAME storage_crash COMMAND storage_crash ${crash_rounds})
set_tests_properties(storage_crash PROPERTIES TIMEOUT 300)

find_program(QOR_SFDISK sfdisk PATHS /usr/sbin /sbin)
if(NOT WIN32 AND QOR_SFDISK)
	set(image ${PROJECT_BINARY_DIR}/storage_disk.img)
	add_test(NAME storage_disk_image_made COMMAND sh -c
		"rm -f '${image}' && truncate -s 64M '${image}' && printf '2048,20480,7\\n,40960,83\\n' | '${QOR_SFDISK}' -q '${image}'")
	add_test(NAME storage_disk_images COMMAND test_storage --gtest_filter=*.DiskImage*)
	set_tests_properties(storage_disk_image_made PROPERTIES FIXTURES_SETUP disk_image)
	set_tests_properties(storage_disk_images PROPERTIES FIXTURES_REQUIRED disk_image
		ENVIRONMENT "qorDisks=${image};QOR_TEST_DISK_IMAGE=1")
endif()
