# velmora_embed_console(TARGET): adds what serves the console, with the files of console/ and the client library that they
# use as raw texts in one generated source.
#
# Run as a script (cmake -DOUTPUT=... -DDIRECTORY=... -DFILES="a;b" -P EmbedConsole.cmake) it writes that source.

if(CMAKE_SCRIPT_MODE_FILE)
  # A raw text may hold anything but its own end, and compilers promise no more than 64 KiB of it.
  set(entries "")
  foreach(name IN LISTS FILES)
    file(SHA256 ${DIRECTORY}/${name} digest)
    string(SUBSTRING ${digest} 0 20 digest)
    file(READ ${DIRECTORY}/${name} content)
    if(content MATCHES "\\)VELMORA\"")
      message(FATAL_ERROR "${name} holds the text that ends an embedded file")
    endif()
    string(LENGTH "${content}" size)
    if(size GREATER 60000)
      message(FATAL_ERROR "${name} is too long to be embedded as one text")
    endif()
    string(APPEND entries "    {\"${name}\", \"\\\"${digest}\\\"\", R\"VELMORA(${content})VELMORA\"},\n")
  endforeach()
  file(WRITE ${OUTPUT} "#include \"rest/ConsoleFiles.h\"\n\nnamespace Server {\n\n"
    "const ConsoleFile ConsoleFiles[] = {\n${entries}    {},\n};\n\n}  // namespace Server\n")
  return()
endif()

set(VELMORA_EMBED_CONSOLE ${CMAKE_CURRENT_LIST_FILE})

function(velmora_embed_console target)
  set(directory ${PROJECT_SOURCE_DIR})
  set(console ${directory}/console)
  file(GLOB names CONFIGURE_DEPENDS RELATIVE ${directory}
       ${console}/*.html ${console}/*.css ${console}/*.js ${console}/*.svg ${directory}/clients/*.mjs)
  list(TRANSFORM names PREPEND ${directory}/ OUTPUT_VARIABLE paths)
  set(output ${CMAKE_CURRENT_BINARY_DIR}/ConsoleFiles.cpp)
  add_custom_command(OUTPUT ${output}
    COMMAND ${CMAKE_COMMAND} -DOUTPUT=${output} -DDIRECTORY=${directory} "-DFILES=${names}" -P ${VELMORA_EMBED_CONSOLE}
    DEPENDS ${paths} ${VELMORA_EMBED_CONSOLE}
    COMMENT "Embedding the console" VERBATIM)
  target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/server/rest/Console.cpp ${output})
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/server)
endfunction()
