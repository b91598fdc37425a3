# How every target of this project is compiled and where its files go. Read once, by the top CMakeLists.txt.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# Build types. None defines NDEBUG: an assertion means the same everywhere.
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release)
endif()
set(CMAKE_CXX_FLAGS_RELEASE "-O2")
set(CMAKE_CXX_FLAGS_DEBUG "-O0 -g -D_GLIBCXX_ASSERTIONS")
set(CMAKE_CXX_FLAGS_ASAN "-O1 -g -D_GLIBCXX_ASSERTIONS -fno-omit-frame-pointer \
-fsanitize=address,undefined -fno-sanitize-recover=all")
set(CMAKE_CXX_FLAGS_FUZZ "-O1 -g -D_GLIBCXX_ASSERTIONS -fno-omit-frame-pointer \
-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all")

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(KESTREL_WERROR)
  add_compile_options(-Werror)
endif()

# __FILE__ is the path from the repository's root: assertions and traces print it.
add_compile_options("-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=")
# Nobody replaces our libraries' functions by others of the same name, so calls within a library may be inlined.
add_compile_options(-fno-semantic-interposition)
# A library names all that it needs: a call to the right of the include direction does not link. (With clang the
# sanitizers' functions are the program's.)
if(NOT CMAKE_BUILD_TYPE STREQUAL "Fuzz")
  add_link_options($<$<IN_LIST:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY$<SEMICOLON>MODULE_LIBRARY>:-Wl,--no-undefined>)
endif()
include_directories("${PROJECT_SOURCE_DIR}")

find_program(KESTREL_CCACHE ccache)
if(KESTREL_CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${KESTREL_CCACHE}")
endif()

# bin/ and lib/ side by side, in the build folder as where it is installed: programs and libraries find each
# other by relative paths, so the tree runs from anywhere.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/lib")
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/lib")
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
set(CMAKE_INSTALL_RPATH "$ORIGIN/../lib")

# Links those of the named targets that there are.
function(kestrel_link_present target)
  foreach(library IN LISTS ARGN)
    if(TARGET ${library})
      target_link_libraries(${target} PUBLIC ${library})
    endif()
  endforeach()
endfunction()

# Tells a test or a benchmark where programs, libraries and the source are.
function(kestrel_knows_paths target)
  target_compile_definitions(${target} PRIVATE
    KESTREL_BIN_DIR="${CMAKE_RUNTIME_OUTPUT_DIRECTORY}"
    KESTREL_LIB_DIR="${CMAKE_LIBRARY_OUTPUT_DIRECTORY}"
    KESTREL_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
endfunction()

# Has those of the named targets that there are built before `target`, which starts or loads them.
function(kestrel_needs_present target)
  foreach(product IN LISTS ARGN)
    if(TARGET ${product})
      add_dependencies(${target} ${product})
    endif()
  endforeach()
endfunction()
