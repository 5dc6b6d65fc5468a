# The fuzz build (-DVANTRIX_FUZZ=ON, clang only): just the model, the session format, the media
# layer and the libFuzzer targets, every object of ours instrumented for coverage and checked by
# ASan + UBSan. Qt and FFmpeg are the system's libraries, not instrumented.
# Included from the top-level CMakeLists.txt, which stops after it.

if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang" OR CMAKE_CXX_COMPILER_VERSION VERSION_LESS 16)
  message(FATAL_ERROR "VANTRIX_FUZZ needs clang 16 or later (libFuzzer): configure with -DCMAKE_CXX_COMPILER=clang++-16")
endif()

# libstdc++ 12 declares std::expected only when the compiler announces C++20 concepts in full.
# clang 16 implements what it needs (conditionally trivial special members) without announcing it.
add_compile_options(-U__cpp_concepts -D__cpp_concepts=202002L -Wno-builtin-macro-redefined)

add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
add_link_options(-fsanitize=address,undefined)

find_package(nlohmann_json 3.11 REQUIRED)
find_package(Qt6 6.4 REQUIRED COMPONENTS Core Gui Multimedia)
find_package(PkgConfig REQUIRED)
pkg_check_modules(FFMPEG REQUIRED IMPORTED_TARGET libavformat libavcodec libavutil libswscale libswresample)
add_subdirectory(src/model)
add_subdirectory(src/media)
add_subdirectory(src/persistence)
add_subdirectory(fuzz)
