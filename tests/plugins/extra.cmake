# Plug-ins that misbehave, and the ones that ship, as real modules.
file(GLOB bad_plugins CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/plugins/bad/*.cpp)
foreach(source IN LISTS bad_plugins)
	get_filename_component(name ${source} NAME_WE)
	add_library(bad_${name} MODULE ${source})
	target_include_directories(bad_${name} PRIVATE ${PROJECT_SOURCE_DIR})
	set_target_properties(bad_${name} PROPERTIES OUTPUT_NAME ${name} PREFIX ""
		LIBRARY_OUTPUT_DIRECTORY ${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/bad_plugins)
	qor_target_settings(bad_${name})
	add_dependencies(test_plugins bad_${name})
	add_dependencies(test_plugins_internal bad_${name})
endforeach()
foreach(name IN ITEMS simcam seqcam template)
	if(TARGET plugin_${name})
		add_dependencies(test_plugins plugin_${name})
	endif()
endforeach()
target_compile_definitions(test_plugins_internal PRIVATE
	QOR_BAD_PLUGINS="${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/bad_plugins")
target_compile_definitions(test_plugins PRIVATE
	QOR_BAD_PLUGINS="${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/bad_plugins" QOR_PLUGINS="${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/plugins")

# Modules with and without entry function and record. The version resources of Windows differ
# in how their texts are found; one has none.
file(GLOB module_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/plugins/modules/*.cpp)
foreach(source IN LISTS module_sources)
	get_filename_component(name ${source} NAME_WE)
	add_library(module_${name} MODULE ${source})
	target_include_directories(module_${name} PRIVATE ${PROJECT_SOURCE_DIR})
	set_target_properties(module_${name} PROPERTIES OUTPUT_NAME ${name} PREFIX "" SUFFIX .dll
		LIBRARY_OUTPUT_DIRECTORY ${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/test_modules)
	qor_target_settings(module_${name})
	add_dependencies(test_plugins module_${name})
endforeach()
qor_embed_module_record(module_entry CONFIGURATION Debug PLATFORM x64 CHARACTER_SET Unicode TEXT "CS(MBCS) größer"
	EXTRA plugins/modules/entry.cpp)
add_dependencies(test_plugins qor_embed)
# Two libraries of one name: the one that a module needs, beside it, and a decoy.
foreach(folder IN ITEMS . decoy)
	string(COMPARE EQUAL ${folder} . value)
	string(MAKE_C_IDENTIFIER needed_${folder} name)
	add_library(${name} SHARED plugins/modules/needed/needed.cpp)
	target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
	target_compile_definitions(${name} PRIVATE NEEDED_VALUE=${value})
	set_target_properties(${name} PROPERTIES OUTPUT_NAME needed PREFIX ""
		RUNTIME_OUTPUT_DIRECTORY ${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/test_modules/${folder}
		LIBRARY_OUTPUT_DIRECTORY ${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/test_modules/${folder}
		ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/${name})
	qor_target_settings(${name})
	add_dependencies(test_plugins ${name})
endforeach()
target_link_libraries(module_needs PRIVATE needed__)
if(WIN32)
	function(add_version name block version translation)
		set(script ${CMAKE_CURRENT_BINARY_DIR}/version_${name}.rc)
		configure_file(${CMAKE_CURRENT_SOURCE_DIR}/plugins/modules/version.rc.in ${script} @ONLY)
		target_sources(module_${name} PRIVATE ${script})
	endfunction()
	string(CONCAT translation "BLOCK \"VarFileInfo\"\nBEGIN\nVALUE \"Translation\", 0x40c, 1252\nEND")
	add_version(entry 040c04E4 3.4.5 "${translation}")
	add_version(plain 041904B0 6.7 "")
endif()
target_compile_definitions(test_plugins PRIVATE QOR_MODULES="${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/test_modules"
	QOR_MODULE_SOURCES="${CMAKE_CURRENT_SOURCE_DIR}/plugins/modules")
