# cmake -DHEADERS=<list> -DROOT=<folder> -DOUTPUT=<file> -P ListPublicConstants.cmake
#
# Writes a line BIND(<name>) for every constant that a host can name: `inline constexpr` outside
# classes and public `static constexpr` members. Headers are formatted by clang-format, so that a
# class starts and ends at the left margin and its members stand one tab in. A line that declares
# a constant in another form is an error rather than left out.
set(declared "constexpr [A-Za-z0-9_:<> ]+[ *&]+([A-Za-z0-9_]+)(\\[[^=]*\\])? ?[={]")
set(lines "")
foreach(header IN LISTS HEADERS)
	set(namespace "")
	set(declares FALSE)
	set(class "")
	set(public TRUE)
	file(STRINGS ${ROOT}/${header} text REGEX "^(namespace|class|struct|union|[ \t]*(static |inline )?constexpr|public:|private:|protected:|})")
	foreach(line IN LISTS text)
		if(line MATCHES "^(class|struct|union) ([A-Z_]+ )?([A-Za-z0-9_]+).*{")
			set(declares FALSE)
			set(class ${CMAKE_MATCH_3})
			string(COMPARE NOTEQUAL ${CMAKE_MATCH_1} class public)
		elseif(line MATCHES "^namespace ([A-Za-z0-9_:]+) {$")
			set(namespace ${CMAKE_MATCH_1}::)
			set(declares TRUE) # a namespace of one declaration ends without a comment
		elseif(line MATCHES "^} // namespace" OR (declares AND line STREQUAL "}"))
			set(namespace "")
		elseif(line MATCHES "^};?")
			set(class "")
		elseif(line MATCHES "^public:")
			set(public TRUE)
		elseif(line MATCHES "^(private|protected):")
			set(public FALSE)
		elseif(line MATCHES "constexpr [^=]*\\(")
			continue() # a function
		elseif(line MATCHES "^(inline )?${declared}")
			string(APPEND lines "BIND(${namespace}${CMAKE_MATCH_2})\n")
		elseif(class AND line MATCHES "^\tstatic ${declared}")
			if(public)
				string(APPEND lines "BIND(${namespace}${class}::${CMAKE_MATCH_1})\n")
			endif()
		elseif(line MATCHES "constexpr")
			message(FATAL_ERROR "${header}: a constant in an unknown form: ${line}")
		endif()
	endforeach()
endforeach()
file(WRITE ${OUTPUT} "${lines}")
