# What the library is linked with on Windows, for the cross build from Debian. Header-only libraries are taken from the
# machine's own packages through a folder of links: the folder they live in must never be searched by a cross compiler.
if(CMAKE_CROSSCOMPILING)
    set(linked_headers ${PROJECT_BINARY_DIR}/headers)
    file(MAKE_DIRECTORY ${linked_headers})
    foreach(library boost rapidjson CLI nlohmann)
        if(NOT EXISTS /usr/include/${library})
            message(FATAL_ERROR "/usr/include/${library} is missing: run ./dev setup windows-x64")
        endif()
        file(CREATE_LINK /usr/include/${library} ${linked_headers}/${library} SYMBOLIC)
    endforeach()
    set(Boost_INCLUDE_DIRS ${linked_headers})
    set(VELMORA_THIRD_PARTY ${PROJECT_SOURCE_DIR}/build/third_party CACHE PATH
        "Folder with the sources that tools/fetch-sources has brought, or will bring")
    execute_process(COMMAND ${PROJECT_SOURCE_DIR}/tools/fetch-sources ${VELMORA_THIRD_PARTY}
                    COMMAND_ERROR_IS_FATAL ANY)
    set(boost_filesystem ${VELMORA_THIRD_PARTY}/boost-filesystem)
    file(GLOB boost_filesystem_sources ${boost_filesystem}/src/*.cpp)

    # C++20 spares it Boost.Atomic, which has no package for this target either.
    add_library(velmora_boost_filesystem STATIC ${boost_filesystem_sources})
    target_include_directories(velmora_boost_filesystem SYSTEM PUBLIC ${linked_headers})
    target_include_directories(velmora_boost_filesystem PRIVATE ${boost_filesystem}/src)
    target_compile_definitions(velmora_boost_filesystem
        PUBLIC BOOST_ALL_NO_LIB BOOST_FILESYSTEM_NO_LIB BOOST_FILESYSTEM_STATIC_LINK=1
        PRIVATE BOOST_FILESYSTEM_SOURCE _WIN32_WINNT=0x0601 NOMINMAX WIN32_LEAN_AND_MEAN)
    target_compile_options(velmora_boost_filesystem PRIVATE -w)
    target_link_libraries(velmora_boost_filesystem PUBLIC bcrypt)
    target_include_directories(velmora_dependencies SYSTEM INTERFACE ${linked_headers})
    target_link_libraries(velmora_dependencies INTERFACE velmora_boost_filesystem)
else()
    find_package(Boost 1.74 REQUIRED COMPONENTS filesystem)
    find_path(RAPIDJSON_INCLUDE_DIR rapidjson/document.h REQUIRED)
    target_include_directories(velmora_dependencies SYSTEM INTERFACE ${RAPIDJSON_INCLUDE_DIR})
    target_link_libraries(velmora_dependencies INTERFACE Boost::filesystem)
endif()

set(ZLIB_USE_STATIC_LIBS ON)
find_library(VELMORA_ZLIB_ARCHIVE NAMES libz.a zlibstatic z REQUIRED)
find_path(VELMORA_ZLIB_INCLUDE_DIR zlib.h REQUIRED)
target_include_directories(velmora_dependencies SYSTEM INTERFACE ${VELMORA_ZLIB_INCLUDE_DIR})
target_link_libraries(velmora_dependencies INTERFACE ${VELMORA_ZLIB_ARCHIVE}
    bcrypt ole32 shell32 shlwapi iphlpapi urlmon winhttp uuid advapi32 user32)
