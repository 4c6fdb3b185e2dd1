# For a cross build: what the module's tests need, from the sources and headers of this machine's packages. Of fmt and
# Boost only the headers are used, so they need no library for the controller.
find_path(QAM_HOST_HEADERS fmt/format.h PATHS /usr/include REQUIRED NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH
          DOC "The folder with the headers of fmt and Boost")
find_path(QAM_GTEST_SOURCES src/gtest-all.cc PATHS /usr/src/googletest/googletest REQUIRED NO_DEFAULT_PATH
          NO_CMAKE_FIND_ROOT_PATH DOC "The folder with the sources of GoogleTest")

# Notes about a change of the ABI in GCC 7; all is compiled by one compiler.
add_compile_options(-Wno-psabi)

# The folder itself would bring this machine's C library.
set(headers ${CMAKE_CURRENT_BINARY_DIR}/headers)
file(MAKE_DIRECTORY ${headers})
foreach(name IN ITEMS fmt boost)
  file(CREATE_LINK ${QAM_HOST_HEADERS}/${name} ${headers}/${name} SYMBOLIC)
endforeach()
add_library(fmt::fmt INTERFACE IMPORTED)
target_include_directories(fmt::fmt INTERFACE ${headers})
target_compile_definitions(fmt::fmt INTERFACE FMT_HEADER_ONLY)

add_library(gtest STATIC ${QAM_GTEST_SOURCES}/src/gtest-all.cc)
add_library(GTest::gtest ALIAS gtest)
target_include_directories(gtest SYSTEM PUBLIC ${QAM_GTEST_SOURCES}/include PRIVATE ${QAM_GTEST_SOURCES})
target_compile_options(gtest PRIVATE -w)
