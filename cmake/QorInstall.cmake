# Installation: the library, its headers by subsystem beside <qor/qor.h>, a CMake package
# and a pkg-config file, both found wherever the prefix is moved.
include(CMakePackageConfigHelpers)

install(TARGETS qor EXPORT qorTargets
	RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
	LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
	ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
if(MSVC)
	install(FILES $<TARGET_PDB_FILE:qor> DESTINATION ${CMAKE_INSTALL_BINDIR} OPTIONAL)
endif()
install(FILES qor/qor.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qor)
foreach(header IN LISTS QOR_PUBLIC_HEADERS)
	get_filename_component(folder ${header} DIRECTORY)
	install(FILES qor/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qor/${folder})
endforeach()

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/qor)
install(EXPORT qorTargets NAMESPACE qor:: DESTINATION ${package_folder})
if(MSVC)
	set(QOR_CXX_ABI MSVC)
else()
	set(QOR_CXX_ABI Itanium) # gcc, and clang where it does not stand in for Visual Studio
endif()
configure_package_config_file(cmake/qorConfig.cmake.in ${PROJECT_BINARY_DIR}/qorConfig.cmake
	INSTALL_DESTINATION ${package_folder} PATH_VARS CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qorConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qorConfig.cmake ${PROJECT_BINARY_DIR}/qorConfigVersion.cmake cmake/QorModule.cmake
	DESTINATION ${package_folder})

file(RELATIVE_PATH prefix_from_pc /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/qor.pc.in ${PROJECT_BINARY_DIR}/qor.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qor.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# What an author of plug-ins starts from, and the guides.
install(DIRECTORY plugins/template plugins/common DESTINATION ${CMAKE_INSTALL_DATADIR}/qor/plugins)
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DATADIR}/qor PATTERN Doxyfile EXCLUDE)

# What of a compiler a host has to match stands in the package's name.
string(REGEX MATCH "^[0-9]+" compiler_version ${CMAKE_CXX_COMPILER_VERSION})
if(MSVC)
	set(compiler msvc${MSVC_TOOLSET_VERSION})
elseif(MINGW)
	set(compiler mingw-gcc${compiler_version})
else()
	string(TOLOWER ${CMAKE_CXX_COMPILER_ID}${compiler_version} compiler)
endif()
set(CPACK_PACKAGE_FILE_NAME qor-${PROJECT_VERSION}-${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR}-${compiler})
set(CPACK_PACKAGE_VENDOR "qor")
if(WIN32)
	set(CPACK_GENERATOR ZIP)
else()
	set(CPACK_GENERATOR TGZ)
endif()
set(CPACK_VERBATIM_VARIABLES ON)
include(CPack)
