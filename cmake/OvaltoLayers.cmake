# Shared compile settings and the one-target-per-layer helper.

add_library(ovalto_settings INTERFACE)
target_compile_options(ovalto_settings INTERFACE -Wall -Wextra -Wpedantic -Werror)
# GCC 12 at -O3 (Release) reports -Wrestrict inside std::string concatenation where there is no
# overlap (GCC bug 105651); the warning stays on for the other flavours and compilers.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(ovalto_settings INTERFACE $<$<CONFIG:Release>:-Wno-restrict>)
endif()
target_include_directories(ovalto_settings INTERFACE
    ${PROJECT_SOURCE_DIR}/include
    ${PROJECT_SOURCE_DIR}/src
    ${PROJECT_SOURCE_DIR})

if(OVALTO_SANITIZE STREQUAL "address")
    set(_san -fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
elseif(OVALTO_SANITIZE STREQUAL "thread")
    set(_san -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT OVALTO_SANITIZE STREQUAL "")
    message(FATAL_ERROR "OVALTO_SANITIZE must be address, thread or empty")
endif()
if(_san)
    # GCC 12's instrumentation makes -Wmaybe-uninitialized fire inside std::optional and
    # std::regex where nothing is uninitialised; plain builds keep the warning.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        list(APPEND _san -Wno-maybe-uninitialized)
    endif()
    add_compile_options(${_san})
    add_link_options(${_san})
endif()

# ovalto_layer(<target> <dir> DEPS <targets...>)
# Builds every .cpp of <dir> into a static library; a layer without sources yet is an
# interface target so that the layers above can already name it.
function(ovalto_layer target dir)
    cmake_parse_arguments(L "" "" "DEPS" ${ARGN})
    file(GLOB _sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${dir}/*.cpp)
    if(_sources)
        add_library(${target} STATIC ${_sources})
        # The installed library is every layer's objects in one archive.
        set_property(GLOBAL APPEND PROPERTY OVALTO_LAYERS ${target})
        target_link_libraries(${target} PUBLIC ovalto_settings ${L_DEPS})
    else()
        add_library(${target} INTERFACE)
        target_link_libraries(${target} INTERFACE ovalto_settings ${L_DEPS})
    endif()
endfunction()
