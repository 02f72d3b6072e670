# What every target of this project is built with.

set(HALVEX_GENERATED_DIR "${PROJECT_BINARY_DIR}/generated")
configure_file("${PROJECT_SOURCE_DIR}/cmake/Version.h.in"
  "${HALVEX_GENERATED_DIR}/Foundation/Version.h" @ONLY)

# Warnings, sanitizers and the Qt definitions that keep conversions visible: private to our targets,
# never published to those who use the library.
function(halvex_configure target)
  target_compile_features(${target} PRIVATE cxx_std_17)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual
    $<$<BOOL:${HALVEX_WARNINGS_AS_ERRORS}>:-Werror>
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety -Wthread-safety-beta>)
  target_compile_definitions(${target} PRIVATE
    QT_NO_KEYWORDS QT_NO_CAST_FROM_ASCII QT_NO_CAST_TO_ASCII QT_NO_URL_CAST_FROM_STRING
    QT_NO_FOREACH QT_NO_NARROWING_CONVERSIONS_IN_CONNECT)
  set_target_properties(${target} PROPERTIES
    CXX_EXTENSIONS OFF
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  if(HALVEX_SANITIZE)
    target_compile_options(${target} PRIVATE
      -fsanitize=${HALVEX_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(${target} PUBLIC -fsanitize=${HALVEX_SANITIZE})
  endif()
endfunction()

# With fuzz targets: has the code tell libFuzzer which ways through it an input has taken.
function(halvex_show_ways target)
  if(HALVEX_FUZZ)
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
  endif()
endfunction()

# An object library of one folder, ready to become part of the shared library.
function(halvex_object_library target)
  add_library(${target} OBJECT ${ARGN})
  halvex_configure(${target})
  set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  halvex_show_ways(${target})
  target_include_directories(${target} PUBLIC "${PROJECT_SOURCE_DIR}" "${HALVEX_GENERATED_DIR}")
endfunction()

# Makes a shared library one that is installed, under this name of the package's targets.
function(halvex_shared_library target export_name)
  target_compile_features(${target} PUBLIC cxx_std_17)
  set_target_properties(${target} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}
    EXPORT_NAME ${export_name}
    LINK_DEPENDS "${PROJECT_SOURCE_DIR}/cmake/exports.map")
  target_link_options(${target} PRIVATE
    "LINKER:--version-script=${PROJECT_SOURCE_DIR}/cmake/exports.map")
  if(NOT HALVEX_SANITIZE)
    # The sanitizers' run-time library comes with the program.
    target_link_options(${target} PRIVATE LINKER:--no-undefined)
  endif()
endfunction()
