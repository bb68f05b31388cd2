# zlib: the system's by default.  ORBAPI_ZLIB_SOURCE names zlib's sources
# instead (a folder, an archive, or an archive's URL; a relative path is
# taken from the source folder); they are then built
# into the library as position-independent, hidden objects, so that nothing
# outside needs zlib at run time (the Python wheels are built so).
set(ORBAPI_ZLIB_SOURCE "" CACHE STRING
  "zlib's sources to build in (folder, archive or URL); empty: the system's zlib")
set(ORBAPI_ZLIB_SHA256 "" CACHE STRING "SHA-256 of the archive ORBAPI_ZLIB_SOURCE names, if any")

if(ORBAPI_ZLIB_SOURCE STREQUAL "")
  find_package(ZLIB REQUIRED)
  return()
endif()

# A path is taken from the source folder when it is not absolute.
set(_orbapi_zlib_source "${ORBAPI_ZLIB_SOURCE}")
if(NOT _orbapi_zlib_source MATCHES "^[a-zA-Z][a-zA-Z0-9+.-]*://")
  get_filename_component(_orbapi_zlib_source "${_orbapi_zlib_source}" ABSOLUTE
    BASE_DIR "${PROJECT_SOURCE_DIR}")
endif()
if(IS_DIRECTORY "${_orbapi_zlib_source}")
  set(_orbapi_zlib_dir "${_orbapi_zlib_source}")
else()
  include(FetchContent)
  set(_orbapi_zlib_hash)
  if(ORBAPI_ZLIB_SHA256)
    set(_orbapi_zlib_hash URL_HASH SHA256=${ORBAPI_ZLIB_SHA256})
  endif()
  # Only the sources are wanted, not zlib's own build: SOURCE_SUBDIR names
  # a folder without a CMakeLists.txt.
  FetchContent_Declare(orbapi_zlib URL "${_orbapi_zlib_source}" ${_orbapi_zlib_hash}
    DOWNLOAD_EXTRACT_TIMESTAMP ON SOURCE_SUBDIR orbapi-sources-only)
  FetchContent_MakeAvailable(orbapi_zlib)
  set(_orbapi_zlib_dir "${orbapi_zlib_SOURCE_DIR}")
endif()
if(NOT EXISTS "${_orbapi_zlib_dir}/inflate.c" OR NOT EXISTS "${_orbapi_zlib_dir}/zlib.h")
  message(FATAL_ERROR "ORBAPI_ZLIB_SOURCE: no zlib sources (inflate.c, zlib.h) in ${_orbapi_zlib_dir}")
endif()

# The library inflates only; the compressing half is left out.
set(_orbapi_zlib_sources)
foreach(_name adler32 crc32 inffast inflate inftrees zutil)
  list(APPEND _orbapi_zlib_sources "${_orbapi_zlib_dir}/${_name}.c")
endforeach()
add_library(orbapi_zlib STATIC ${_orbapi_zlib_sources})
target_include_directories(orbapi_zlib SYSTEM PUBLIC "${_orbapi_zlib_dir}")
# zlib's own code, compiled as its authors do: without this project's warnings.
target_compile_options(orbapi_zlib PRIVATE $<IF:$<C_COMPILER_ID:MSVC>,/w,-w>)
set_target_properties(orbapi_zlib PROPERTIES
  POSITION_INDEPENDENT_CODE ON
  C_VISIBILITY_PRESET hidden)
add_library(ZLIB::ZLIB ALIAS orbapi_zlib)
