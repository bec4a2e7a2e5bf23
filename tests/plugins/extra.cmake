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
endforeach()
foreach(name IN ITEMS simcam seqcam template)
	if(TARGET plugin_${name})
		add_dependencies(test_plugins plugin_${name})
	endif()
endforeach()
target_compile_definitions(test_plugins PRIVATE
	QOR_BAD_PLUGINS="${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/bad_plugins" QOR_PLUGINS="${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/plugins")
