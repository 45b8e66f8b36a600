/* How the functions of the library are exported and imported. The one public header that knows the platform. */
#pragma once

#if defined(_WIN32)
#    if defined(VELMORA_STATIC)
#        define VELMORA_API
#    elif defined(VELMORA_BUILDING)
#        define VELMORA_API __declspec(dllexport)
#    else
#        define VELMORA_API __declspec(dllimport)
#    endif
#else
#    define VELMORA_API __attribute__((visibility("default")))
#endif
