# Constants are bound as the least optimising host would bind them.
set(constants ${CMAKE_CURRENT_BINARY_DIR}/interface/public_constants.inc)
set(lister ${PROJECT_SOURCE_DIR}/cmake/ListPublicConstants.cmake)
list(TRANSFORM QOR_PUBLIC_HEADERS PREPEND ${PROJECT_SOURCE_DIR}/qor/ OUTPUT_VARIABLE header_paths)
add_custom_command(OUTPUT ${constants} DEPENDS ${lister} ${header_paths} VERBATIM
	COMMAND ${CMAKE_COMMAND} "-DHEADERS=${QOR_PUBLIC_HEADERS}" -DROOT=${PROJECT_SOURCE_DIR}/qor -DOUTPUT=${constants} -P ${lister})
target_sources(test_interface PRIVATE ${constants})
target_include_directories(test_interface PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/interface)
if(MSVC)
	target_compile_options(test_interface PRIVATE /Od)
else()
	target_compile_options(test_interface PRIVATE -O0 -U_FORTIFY_SOURCE) # which asks for optimisation
endif()
