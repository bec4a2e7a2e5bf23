# qor_embed_module_record(<target> [CONFIGURATION <name>] [PLATFORM <name>] [CHARACTER_SET <name>]
#                         [TEXT <text>] [EXTRA <file>])
#
# Puts an information record into the file of a SHARED or MODULE library each time it is
# linked. Hosts read it with CqorDynamicModule::RetrieveDMInfo.
#
#   CONFIGURATION  default: the configuration being built
#   PLATFORM       default: x64, x86 or ARM64 by the target processor
#   CHARACTER_SET  default: Unicode when the target defines UNICODE or _UNICODE, else MBCS
#   TEXT           anything else worth saying, UTF-8; with the tags at most 511 UTF-16 code units
#   EXTRA          a file whose bytes follow the text
#
# With Ninja and Makefiles the library is linked anew when TEXT or the file changes.
#
# When cross-compiling, the program of the package runs under CMAKE_CROSSCOMPILING_EMULATOR.
# Without one, name a qor_embed of the build machine in QOR_EMBED_PROGRAM: it serves every target.
set(QOR_EMBED_PROGRAM "" CACHE FILEPATH "A qor_embed of the build machine, in place of the package's")
mark_as_advanced(QOR_EMBED_PROGRAM)

function(_qor_embed_command out)
	get_target_property(imported qor::embed IMPORTED)
	if(QOR_EMBED_PROGRAM)
		set(command ${QOR_EMBED_PROGRAM})
	elseif(NOT CMAKE_CROSSCOMPILING OR NOT imported)
		set(command qor::embed) # CMake puts the emulator in front of a program that the build itself makes
	elseif(CMAKE_CROSSCOMPILING_EMULATOR)
		set(command ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:qor::embed>)
	else()
		message(FATAL_ERROR "qor_embed_module_record: set QOR_EMBED_PROGRAM or CMAKE_CROSSCOMPILING_EMULATOR")
	endif()
	set(${out} ${command} PARENT_SCOPE)
endfunction()

function(_qor_platform_name out)
	set(processor "${CMAKE_SYSTEM_PROCESSOR}")
	if(MSVC) # whose platform is chosen at the command line: CMake names the machine's processor
		set(processor "${CMAKE_CXX_COMPILER_ARCHITECTURE_ID}${CMAKE_C_COMPILER_ARCHITECTURE_ID}")
		string(REGEX REPLACE "^(x64|X86|ARM64).*" "\\1" processor "${processor}")
	endif()
	string(TOLOWER "${processor}" processor)
	if(processor MATCHES "^(aarch64|arm64)$")
		set(name ARM64)
	elseif(CMAKE_SIZEOF_VOID_P EQUAL 8 AND processor MATCHES "^(x86_64|amd64|x64)$")
		set(name x64)
	elseif(CMAKE_SIZEOF_VOID_P EQUAL 4 AND processor MATCHES "^(x86_64|amd64|x64|x86|i[3-6]86)$")
		set(name x86)
	else()
		set(name ${CMAKE_SYSTEM_PROCESSOR})
	endif()
	set(${out} ${name} PARENT_SCOPE)
endfunction()

function(qor_embed_module_record target)
	cmake_parse_arguments(PARSE_ARGV 1 record "" "CONFIGURATION;PLATFORM;CHARACTER_SET;TEXT;EXTRA" "")
	if(DEFINED record_UNPARSED_ARGUMENTS)
		message(FATAL_ERROR "qor_embed_module_record: unknown argument ${record_UNPARSED_ARGUMENTS}")
	endif()
	if(DEFINED record_KEYWORDS_MISSING_VALUES)
		message(FATAL_ERROR "qor_embed_module_record: no value for ${record_KEYWORDS_MISSING_VALUES}")
	endif()
	if(NOT record_CONFIGURATION)
		set(record_CONFIGURATION $<CONFIG>)
	endif()
	if(NOT record_PLATFORM)
		_qor_platform_name(record_PLATFORM)
	endif()
	if(NOT record_CHARACTER_SET)
		set(definitions $<TARGET_PROPERTY:${target},COMPILE_DEFINITIONS>)
		set(wide "$<FILTER:${definitions},INCLUDE,^_?UNICODE(=.*)?$>")
		set(record_CHARACTER_SET $<IF:$<BOOL:${wide}>,Unicode,MBCS>)
	endif()
	set(arguments --configuration "${record_CONFIGURATION}" --platform "${record_PLATFORM}"
		--character-set "${record_CHARACTER_SET}")
	if(NOT "${record_TEXT}" STREQUAL "") # in a file, since not every system passes UTF-8 in arguments
		set(text "${CMAKE_CURRENT_BINARY_DIR}/${target}_record_$<CONFIG>.txt")
		file(GENERATE OUTPUT "${text}" CONTENT "${record_TEXT}" TARGET ${target})
		list(APPEND arguments --text-file "${text}")
		set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS "${text}")
	endif()
	if(record_EXTRA)
		get_filename_component(extra "${record_EXTRA}" ABSOLUTE)
		list(APPEND arguments --extra "${extra}")
		set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS "${extra}")
	endif()
	_qor_embed_command(command)
	add_custom_command(TARGET ${target} POST_BUILD COMMAND ${command} ${arguments} "$<TARGET_FILE:${target}>"
		COMMENT "Embedding the record of ${target}" VERBATIM)
endfunction()
