# Writes OUTPUT, a C++ source with the contents of FILES as literals named after their extensions.
#   cmake -D OUTPUT=FILE -D "FILES=FILE;..." -P embed.cmake
set(source "// Written by embed.cmake.\n#include \"ControlPageParts.h\"\n\n")
foreach(file IN LISTS FILES)
    get_filename_component(extension "${file}" LAST_EXT)
    string(SUBSTRING "${extension}" 1 -1 name)
    string(TOUPPER "${name}" name)
    file(READ "${file}" content)
    string(APPEND source
        "constexpr std::string_view kControlPage${name} = R\"page(${content})page\";\n")
endforeach()
file(WRITE "${OUTPUT}" "${source}")
