# Writes OUTPUT, a C++ file with the bytes of the page's FILES, which lie in FOLDER. Run by cmake -P.
set(types_html "text/html; charset=utf-8")
set(types_js "text/javascript; charset=utf-8")
set(types_css "text/css; charset=utf-8")
set(types_svg "image/svg+xml")

set(bodies "")
set(rows "")
set(number 0)
foreach(file IN LISTS FILES)
  file(READ ${FOLDER}/${file} bytes HEX)
  string(REGEX REPLACE "(..)" "'\\\\x\\1'," bytes "${bytes}")
  get_filename_component(ending ${file} LAST_EXT)
  string(SUBSTRING "${ending}" 1 -1 ending)
  set(path "/${file}")
  if(file STREQUAL "index.html")
    set(path "/")
  endif()
  string(APPEND bodies "constexpr char kBody${number}[] = {${bytes}};\n")
  string(APPEND rows "    {\"${path}\", \"${types_${ending}}\", {kBody${number}, sizeof kBody${number}}},\n")
  math(EXPR number "${number} + 1")
endforeach()

file(WRITE ${OUTPUT} "#include \"web_assets.h\"

namespace sim {
namespace {

${bodies}
constexpr WebAsset kAssets[] = {
${rows}};

}  // namespace

std::span<const WebAsset> web_assets() { return kAssets; }

}  // namespace sim
")
