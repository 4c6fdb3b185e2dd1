# Writes OUTPUT, a source with the files of the page as bytes.
set(text "// Made from the files of the page.\n#include \"tools/web/page.h\"\n\nnamespace tools {\nnamespace {\n\n")
set(rows "")
foreach(file IN ITEMS "/:page.html:text/html; charset=utf-8" "/page.css:page.css:text/css; charset=utf-8"
                      "/page.js:page.js:text/javascript; charset=utf-8")
  string(REGEX MATCH "^([^:]*):([^:]*):(.*)$" whole "${file}")
  set(path ${CMAKE_MATCH_1})
  set(name ${CMAKE_MATCH_2})
  set(type ${CMAKE_MATCH_3})
  string(MAKE_C_IDENTIFIER ${name} identifier)
  file(READ ${CMAKE_CURRENT_LIST_DIR}/${name} bytes HEX)
  string(REGEX REPLACE "(..)" "'\\\\x\\1'," bytes "${bytes}")
  string(APPEND text "constexpr char ${identifier}[] = {${bytes}};\n")
  string(APPEND rows "    {\"${path}\", \"${type}\", {${identifier}, sizeof ${identifier}}},\n")
endforeach()
string(APPEND text "constexpr PageFile kFiles[] = {\n${rows}};\n\n}  // namespace\n\n"
                   "std::span<const PageFile> pageFiles() {\n  return kFiles;\n}\n\n}  // namespace tools\n")
file(WRITE ${OUTPUT} "${text}")
