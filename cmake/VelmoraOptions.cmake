# velmora_options: language level, warnings and sanitizers of every target of this project.
add_library(velmora_options INTERFACE)
target_compile_features(velmora_options INTERFACE cxx_std_20)
target_include_directories(velmora_options INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
target_compile_options(velmora_options INTERFACE -Wall -Wextra -Wshadow -Werror $<$<COMPILE_LANGUAGE:CXX>:-Wconversion>)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    # RapidJSON's comparison operators are older than C++20's reversed candidates.
    target_compile_options(velmora_options INTERFACE
        $<$<COMPILE_LANGUAGE:CXX>:-Wthread-safety> $<$<COMPILE_LANGUAGE:CXX>:-Wno-ambiguous-reversed-operator>)
endif()
if(WIN32)
    target_compile_definitions(velmora_options INTERFACE
        _WIN32_WINNT=0x0601 UNICODE _UNICODE NOMINMAX WIN32_LEAN_AND_MEAN)
    target_link_options(velmora_options INTERFACE -static)
    # GCC 12 sees an overlap in any std::string operator+ with a literal, where the library's templates are instantiated.
    target_compile_options(velmora_options INTERFACE
        $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CXX_COMPILER_ID:GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>)
endif()
if(VELMORA_SANITIZE)
    target_compile_options(velmora_options INTERFACE -fsanitize=${VELMORA_SANITIZE} -fno-omit-frame-pointer)
    target_link_options(velmora_options INTERFACE -fsanitize=${VELMORA_SANITIZE})
    if(VELMORA_SANITIZE MATCHES "undefined")
        target_compile_options(velmora_options INTERFACE -fno-sanitize-recover=undefined)
        if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
            # The JSON reader's empty stack adds to a null pointer.
            target_compile_options(velmora_options INTERFACE -fno-sanitize=pointer-overflow)
        endif()
    endif()
    if(VELMORA_SANITIZE MATCHES "thread")
        # GCC's runtime does not model fences; the code base uses none of its own.
        target_compile_options(velmora_options INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-tsan>)
    endif()
endif()
if(VELMORA_CPU_BASELINE_SSE42)
    target_compile_options(velmora_options INTERFACE -msse4.2)
    target_compile_definitions(velmora_options INTERFACE RAPIDJSON_SSE42)
endif()
find_program(VELMORA_CCACHE ccache)
if(VELMORA_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_CXX_COMPILER_LAUNCHER ${VELMORA_CCACHE})
    set(CMAKE_C_COMPILER_LAUNCHER ${VELMORA_CCACHE})
endif()
