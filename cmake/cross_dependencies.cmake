# Dependencies of a cross build for Windows (cmake/mingw-w64-x86_64.cmake):
# - glm is header-only, so the build machine's headers serve. They are seen
#   through a folder that holds nothing but a link to glm, because adding glm's
#   parent (/usr/include) would hand the cross compiler every Linux header.
# - GoogleTest is compiled from Debian's sources inside the build, with the
#   same GTest:: target names a native find_package(GTest) gives.
# - The compiler's runtime DLLs (C++, GCC, threads, OpenMP) are copied beside
#   the programs so that they start under Wine or on Windows from bin/ alone.

set(zr_glm_root ${CMAKE_BINARY_DIR}/cross-include)
file(MAKE_DIRECTORY ${zr_glm_root})
if(NOT EXISTS ${zr_glm_root}/glm)
    file(CREATE_LINK ${ZR_CROSS_GLM_HEADERS} ${zr_glm_root}/glm SYMBOLIC)
endif()
add_library(glm::glm INTERFACE IMPORTED)
target_include_directories(glm::glm SYSTEM INTERFACE ${zr_glm_root})

if(ZR_BUILD_TESTS)
    set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
    set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
    add_subdirectory(${ZR_CROSS_GTEST_SOURCES} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
    foreach(lib gtest gtest_main gmock gmock_main)
        if(NOT TARGET GTest::${lib})
            add_library(GTest::${lib} ALIAS ${lib})
        endif()
    endforeach()
endif()

foreach(dll libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll libgomp-1.dll)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${dll}
                    OUTPUT_VARIABLE zr_dll_path OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(NOT IS_ABSOLUTE "${zr_dll_path}" OR NOT EXISTS "${zr_dll_path}")
        message(FATAL_ERROR "cross build: the compiler does not know where ${dll} is (got '${zr_dll_path}')")
    endif()
    file(COPY ${zr_dll_path} DESTINATION ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
endforeach()
