# Builds the page into the program: the HTML with the style and the script put in at their
# markers, written as a byte array in a generated source file.
# Usage: cmake -DHTML=... -DCSS=... -DJS=... -DOUT=... -P Embed.cmake
file(READ "${HTML}" page)
file(READ "${CSS}" style)
file(READ "${JS}" script)
string(REPLACE "/*style*/" "${style}" page "${page}")
string(REPLACE "/*script*/" "${script}" page "${page}")
file(WRITE "${OUT}.html" "${page}")
file(READ "${OUT}.html" hex HEX)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
file(WRITE "${OUT}.tmp"
  "// Generated from web/page at build time.\n"
  "#include \"PageAssets.h\"\n\n"
  "namespace lumora::web {\n\nnamespace {\nconst unsigned char kPage[] = {${bytes}};\n}  // namespace\n\n"
  "std::string_view pageHtml() { return {reinterpret_cast<const char*>(kPage), sizeof kPage}; }\n\n}  // namespace lumora::web\n")
file(RENAME "${OUT}.tmp" "${OUT}")
