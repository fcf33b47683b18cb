# vocastra-desk without its server: the pages and their actions.

set(page_dir ${CMAKE_CURRENT_LIST_DIR}/page)
file(READ ${page_dir}/style.css VOCASTRA_STYLE)
file(READ ${page_dir}/desk.js VOCASTRA_SCRIPT)
file(READ ${page_dir}/icon.svg VOCASTRA_ICON)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
  ${page_dir}/style.css ${page_dir}/desk.js ${page_dir}/icon.svg)
configure_file(desk/pagefiles.cc.in ${CMAKE_CURRENT_BINARY_DIR}/desk/pagefiles.cc @ONLY)

add_library(vocastra_desk_pages STATIC
  desk/desk.cc
  desk/document.cc
  desk/history.cc
  desk/html.cc
  desk/page.cc
  desk/preview.cc
  desk/templates.cc
  desk/view.cc
  desk/words.cc
  ${CMAKE_CURRENT_BINARY_DIR}/desk/pagefiles.cc)
target_include_directories(vocastra_desk_pages PUBLIC desk)
target_include_directories(vocastra_desk_pages SYSTEM PRIVATE ${UTF8CPP_INCLUDE_DIR})
target_link_libraries(vocastra_desk_pages
  PUBLIC vocastra_handover PRIVATE nlohmann_json::nlohmann_json vocastra_warnings)
target_compile_options(vocastra_desk_pages PRIVATE ${VOCASTRA_SMALL})
