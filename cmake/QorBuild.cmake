# Settings shared by every target of this tree.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
# One folder for programs and modules; one for each configuration where one tree builds several.
get_property(QOR_SEVERAL_CONFIGURATIONS GLOBAL PROPERTY GENERATOR_IS_MULTI_CONFIG)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin$<$<BOOL:${QOR_SEVERAL_CONFIGURATIONS}>:/$<CONFIG>>)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})

find_program(QOR_CCACHE ccache)
if(QOR_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
	set(CMAKE_CXX_COMPILER_LAUNCHER ${QOR_CCACHE})
	set(CMAKE_C_COMPILER_LAUNCHER ${QOR_CCACHE})
endif()

find_package(Threads REQUIRED)

# Stack protector, checked copies, and tables of functions that cannot be written once the
# program runs. Windows' linkers place programs at random and keep data from being run anyway.
function(_qor_harden target)
	set(optimised $<NOT:$<CONFIG:Debug>>)
	if(MSVC)
		target_compile_options(${target} PRIVATE $<${optimised}:/guard:cf>)
		target_link_options(${target} PRIVATE $<${optimised}:/guard:cf>)
		return()
	endif()
	target_compile_options(${target} PRIVATE $<${optimised}:-fstack-protector-strong>)
	target_compile_definitions(${target} PRIVATE $<${optimised}:_FORTIFY_SOURCE=2>)
	if(WIN32)
		target_link_options(${target} PRIVATE $<${optimised}:-fstack-protector-strong>) # names the library of the checks
	else()
		target_compile_options(${target} PRIVATE $<${optimised}:-fstack-clash-protection>)
		target_link_options(${target} PRIVATE $<${optimised}:LINKER:-z,relro,-z,now>)
	endif()
endfunction()

# Warnings, sanitizers and the language for a target of ours.
function(qor_target_settings target)
	if(MSVC)
		target_compile_options(${target} PRIVATE /W4 /utf-8 /permissive- $<$<BOOL:${QOR_WARNINGS_AS_ERRORS}>:/WX>)
		target_compile_definitions(${target} PRIVATE _CRT_SECURE_NO_WARNINGS NOMINMAX WIN32_LEAN_AND_MEAN)
	else()
		target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic $<$<CXX_COMPILER_ID:GNU>:-Wshadow=local>
			$<$<CXX_COMPILER_ID:Clang>:-Wno-unused-private-field> # room kept for later fields
			$<$<BOOL:${QOR_WARNINGS_AS_ERRORS}>:-Werror>)
	endif()
	if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
		target_compile_options(${target} PRIVATE -Wno-restrict) # false for std::string's operator+ at -O3
	endif()
	if(QOR_HARDEN AND NOT QOR_SANITIZE)
		_qor_harden(${target})
	endif()
	if(WIN32)
		target_compile_definitions(${target} PRIVATE _WIN32_WINNT=0x0A00)
	endif()
	if(MINGW)
		target_compile_definitions(${target} PRIVATE NOMINMAX WIN32_LEAN_AND_MEAN)
		target_link_options(${target} PRIVATE -static)
	endif()
	if(QOR_SANITIZE)
		# gcc takes the standard library's std::regex and std::function for uninitialised when instrumented.
		target_compile_options(${target} PRIVATE -fsanitize=${QOR_SANITIZE} -fno-omit-frame-pointer
			-fno-sanitize-recover=undefined $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
		target_link_options(${target} PRIVATE -fsanitize=${QOR_SANITIZE})
	endif()
endfunction()
