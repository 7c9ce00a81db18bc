# Writes a C++ source that holds the bytes of one file, so that a resource travels inside the
# library. Run as: cmake -DINPUT=… -DOUTPUT=… -DFUNCTION=… -P embed_resource.cmake
# FUNCTION is the name (in namespace vumo::resources) of the accessor returning a string_view.
file(READ "${INPUT}" hex HEX)
string(LENGTH "${hex}" hexLength)
math(EXPR size "${hexLength} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${hex}")
file(WRITE "${OUTPUT}.tmp"
  "// Generated from ${INPUT}; do not edit.\n"
  "#include <string_view>\n"
  "namespace vumo::resources {\n"
  "namespace {\n"
  "constexpr char data[] = {${bytes} '\\0'};\n"
  "}  // namespace\n"
  "std::string_view ${FUNCTION}() { return {data, ${size}}; }\n"
  "}  // namespace vumo::resources\n")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
